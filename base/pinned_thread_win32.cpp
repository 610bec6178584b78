#include <windows.h>

#include <memory>
#include <system_error>
#include <utility>

#include "base/pinned_thread.h"

namespace kxorbeta_if {
namespace {

struct Start {
    std::function<void()> work;
    HMODULE library = nullptr;
};

DWORD WINAPI runPinned(void* argument) {
    HMODULE library = nullptr;
    {
        const std::unique_ptr<Start> start(static_cast<Start*>(argument));
        library = start->library;
        start->work();
    }
    // Gives the library back and ends in one call: this code may be gone the moment the library is released.
    FreeLibraryAndExitThread(library, 0);
}

std::system_error lastError() {
    return std::system_error(static_cast<int>(GetLastError()), std::system_category(), "link thread");
}

}  // namespace

void startPinnedThread(std::function<void()> work) {
    auto start = std::make_unique<Start>(Start{std::move(work), nullptr});
    if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCSTR>(&runPinned),
                           &start->library) == 0) {
        throw lastError();
    }
    const HANDLE thread = CreateThread(nullptr, 0, runPinned, start.get(), 0, nullptr);
    if (thread == nullptr) {
        const std::system_error error = lastError();
        FreeLibrary(start->library);
        throw error;
    }
    start.release();  // the thread's now
    CloseHandle(thread);
}

}  // namespace kxorbeta_if
