#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>

#include "session/signal.h"

namespace velmora {

static_assert(std::atomic<std::uint32_t>::is_always_lock_free, "a signal handler may interrupt its owner");

Signal::Signal() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (event_ < 0) {
        throw std::system_error(errno, std::generic_category(), "no event descriptor");
    }
}

Signal::~Signal() {
    ::close(static_cast<int>(event_));
}

void Signal::set() noexcept {
    const int code = errno;  // whoever a signal handler interrupts may be about to read it
    set_.store(1);
    ::eventfd_write(static_cast<int>(event_), 1);
    errno = code;
}

// The descriptor first: whatever set() does meanwhile, a signal never looks set that no wait would see.
void Signal::reset() noexcept {
    eventfd_t count = 0;
    ::eventfd_read(static_cast<int>(event_), &count);
    set_.store(0);
}

bool waitForEither(Signal& own, Signal* cancel, Clock::Time deadline) noexcept {
    pollfd watched[2] = {{static_cast<int>(own.event_), POLLIN, 0}, {-1, POLLIN, 0}};
    if (cancel != nullptr) {
        watched[1].fd = static_cast<int>(cancel->event_);
    }
    for (;;) {
        timespec left{};
        if (deadline != Clock::Time::max()) {
            using std::chrono::nanoseconds;
            const auto span = std::max(
                std::chrono::duration_cast<nanoseconds>(deadline - std::chrono::steady_clock::now()), nanoseconds(0));
            left = {span.count() / 1'000'000'000, span.count() % 1'000'000'000};
        }
        const int count =
            ::ppoll(watched, cancel != nullptr ? 2 : 1, deadline != Clock::Time::max() ? &left : nullptr, nullptr);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (watched[0].revents != 0) {
            own.reset();
        }
        return count != 0;
    }
}

}  // namespace velmora
