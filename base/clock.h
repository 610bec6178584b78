#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kxorbeta_if {

/// Time as the library's threads live it: every wait that is not for the port goes through here, so that a test can put
/// a clock in its place that jumps to the next deadline as soon as all its threads wait.
///
/// The mutex and the condition variable of a wait are the caller's, as usual; only waiting and waking go through the
/// clock. Any thread.
class Clock {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Duration = std::chrono::steady_clock::duration;
    static constexpr Time kNever = Time::max();

    virtual ~Clock() = default;

    virtual Time now() = 0;

    /// Waits until somebody calls notify() for `changed` or `deadline` has come; may return earlier for no reason.
    /// `lock` is given up meanwhile.
    virtual void wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Time deadline) = 0;
    virtual void notify(std::condition_variable& changed) = 0;

    virtual void sleepUntil(Time deadline) = 0;
    void sleepFor(Duration duration) { sleepUntil(now() + duration); }

    /// Brackets of a thread that waits through this clock: the first before it is started, by whoever starts it, the
    /// second as its last act.
    virtual void threadStarting() {}
    virtual void threadEnding() noexcept {}

    /// As wait(), until `done` holds; false when it does not by `deadline`.
    template <typename Done>
    bool waitFor(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Time deadline, Done&& done) {
        while (!done()) {
            if (now() >= deadline) {
                return false;
            }
            wait(changed, lock, deadline);
        }
        return true;
    }
};

/// The machine's own monotonic clock.
Clock& systemClock();

}  // namespace kxorbeta_if
