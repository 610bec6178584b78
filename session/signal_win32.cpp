#include <windows.h>

#include <algorithm>
#include <chrono>
#include <system_error>

#include "session/signal.h"

namespace velmora {

namespace {

HANDLE handleOf(std::intptr_t event) {
    return reinterpret_cast<HANDLE>(event);
}

}  // namespace

Signal::Signal() : event_(reinterpret_cast<std::intptr_t>(::CreateEventW(nullptr, TRUE, FALSE, nullptr))) {
    if (event_ == 0) {
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), "no event");
    }
}

Signal::~Signal() {
    ::CloseHandle(handleOf(event_));
}

void Signal::set() noexcept {
    set_.store(1);
    ::SetEvent(handleOf(event_));
}

// The event first: whatever set() does meanwhile, a signal never looks set that no wait would see.
void Signal::reset() noexcept {
    ::ResetEvent(handleOf(event_));
    set_.store(0);
}

bool waitForEither(Signal& own, Signal* cancel, Clock::Time deadline) noexcept {
    const HANDLE handles[2] = {handleOf(own.event_), handleOf(cancel != nullptr ? cancel->event_ : 0)};
    const DWORD count = cancel != nullptr ? 2 : 1;
    for (;;) {
        DWORD most = INFINITE;
        if (deadline != Clock::Time::max()) {
            // Rounded up: a wait that ends early would only be begun again.
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            most = static_cast<DWORD>(std::clamp<std::int64_t>(left.count(), 0, 1'000'000'000));
        }
        const DWORD result = ::WaitForMultipleObjects(count, handles, FALSE, most);
        if (result == WAIT_TIMEOUT) {
            if (deadline == Clock::Time::max() || std::chrono::steady_clock::now() < deadline) {
                continue;
            }
            return false;
        }
        if (result == WAIT_OBJECT_0) {
            own.reset();
        }
        return true;
    }
}

}  // namespace velmora
