#include <windows.h>

#include <atomic>

#include "base/stop_signals.h"

namespace kxorbeta_if {
namespace {

std::atomic<int> requests{0};
void (*call)() = nullptr;

BOOL WINAPI note(DWORD event) {
    ++requests;
    if (call != nullptr) {
        call();
    }
    // For these Windows ends the process as soon as this returns; the main thread needs the time to end in order.
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        ::Sleep(INFINITE);
    }
    return TRUE;
}

}  // namespace

void catchStopSignals(void (*andCall)()) {
    call = andCall;
    ::SetConsoleCtrlHandler(note, TRUE);
}

int stopRequests() {
    return requests;
}

}  // namespace kxorbeta_if
