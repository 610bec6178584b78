#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <atomic>

#include "velmora/terminal.h"

namespace velmora {

namespace {

std::atomic<int> requests{0};

BOOL WINAPI note(DWORD event) {
    ++requests;
    // For these Windows ends the process as soon as this returns; the main thread needs the time to end in order.
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT)
        ::Sleep(INFINITE);
    return TRUE;
}

}  // namespace

void catchStopSignals() {
    ::SetConsoleCtrlHandler(note, TRUE);
}

int stopRequests() {
    return requests;
}

Console consoleOfOutput() {
    Console console;
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (!::GetConsoleMode(output, &mode))
        return console;
    console.interactive = ::SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (::GetConsoleScreenBufferInfo(output, &info))
        console.width = info.srWindow.Right - info.srWindow.Left + 1;
    return console;
}

void endProcessNow(int exitCode) {
    // An orderly exit would run the DLLs' own clean-up after their threads were cut off, possibly with locks held.
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
    for (;;)
        ::Sleep(INFINITE);
}

}  // namespace velmora
