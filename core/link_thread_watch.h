#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "base/clock.h"

namespace kxorbeta_if {

/// Knows whether a link thread lives. The thread is detached, so nobody can join it; yet whoever starts a new
/// connection must not meet the old thread, which would eat the dongle's answers.
class LinkThreadWatch {
  public:
    explicit LinkThreadWatch(Clock& clock) : clock_(clock) {}

    /// Counts from before the thread's start to after its last word.
    void starting() {
        const std::lock_guard guard(mutex_);
        ++living_;
    }

    void enteredOnThisThread() {
        const std::lock_guard guard(mutex_);
        thread_ = std::this_thread::get_id();
    }

    void ended() {
        const std::lock_guard guard(mutex_);
        --living_;
        thread_ = {};
        clock_.notify(changed_);
    }

    /// Takes no lock: asked at the end of a process, too, when a thread may have been killed with the lock in hand.
    bool living() const noexcept { return living_ > 0; }

    /// Waits until no link thread lives, at most `limit`; not at all when called on the link thread itself.
    void waitUntilEnded(Clock::Duration limit) {
        std::unique_lock lock(mutex_);
        if (thread_ != std::this_thread::get_id()) {
            clock_.waitFor(changed_, lock, clock_.now() + limit, [&] { return living_ == 0; });
        }
    }

    /// The link thread, on a line that is gone: lets `duration` pass, less when prod() is called.
    void pause(Clock::Duration duration) {
        std::unique_lock lock(mutex_);
        const unsigned before = prods_;
        clock_.waitFor(changed_, lock, clock_.now() + duration, [&] { return prods_ != before; });
    }

    /// Something has changed that a pausing link thread wants to look at.
    void prod() {
        const std::lock_guard guard(mutex_);
        ++prods_;
        clock_.notify(changed_);
    }

  private:
    Clock& clock_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<int> living_{0};
    unsigned prods_ = 0;
    std::thread::id thread_;
};

}  // namespace kxorbeta_if
