#include <signal.h>

#include <initializer_list>

#include "dongle/stop_signals.h"

namespace dongle {

namespace {

volatile sig_atomic_t asked = 0;

void note(int) {
    asked = 1;
}

}  // namespace

void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = note;
    // A reader of our output that ends first counts too: a link must not be left behind.
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        ::sigaction(number, &action, nullptr);
}

bool stopAsked() {
    return asked != 0;
}

}  // namespace dongle
