#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>

#include "velmora/terminal.h"

namespace velmora {

namespace {

volatile sig_atomic_t requests = 0;

void note(int) {
    // A plain addition: the type promises no atomic one, and a lost second of two simultaneous signals does no harm.
    requests = requests + 1;
}

}  // namespace

void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = note;
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        ::sigaction(number, &action, nullptr);
}

int stopRequests() {
    return requests;
}

Console consoleOfOutput() {
    Console console;
    console.interactive = ::isatty(STDOUT_FILENO) == 1;
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        console.width = size.ws_col;
    return console;
}

void endProcessNow(int exitCode) {
    std::_Exit(exitCode);
}

}  // namespace velmora
