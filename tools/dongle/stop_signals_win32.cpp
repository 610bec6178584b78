#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <atomic>

#include "dongle/stop_signals.h"

namespace dongle {

namespace {

std::atomic<bool> asked{false};

BOOL WINAPI note(DWORD) {
    asked = true;
    return TRUE;
}

}  // namespace

void catchStopSignals() {
    ::SetConsoleCtrlHandler(note, TRUE);
}

bool stopAsked() {
    return asked;
}

}  // namespace dongle
