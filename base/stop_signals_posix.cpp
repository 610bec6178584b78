#include <signal.h>

#include <initializer_list>

#include "base/stop_signals.h"

namespace kxorbeta_if {
namespace {

volatile sig_atomic_t requests = 0;
void (*call)() = nullptr;

void note(int) {
    // A plain addition: the type promises no atomic one, and a lost second of two simultaneous signals does no harm.
    requests = requests + 1;
    if (call != nullptr) {
        call();
    }
}

}  // namespace

void catchStopSignals(void (*andCall)()) {
    call = andCall;
    struct sigaction action {};
    action.sa_handler = note;
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        ::sigaction(number, &action, nullptr);
    }
}

int stopRequests() {
    return requests;
}

}  // namespace kxorbeta_if
