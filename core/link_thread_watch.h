#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace kxorbeta_if {

/// Knows whether a link thread lives. The thread is detached, so nobody can join it; yet whoever starts a new
/// connection must not meet the old thread, which would eat the dongle's answers.
class LinkThreadWatch {
  public:
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
        changed_.notify_all();
    }

    /// Takes no lock: asked at the end of a process, too, when a thread may have been killed with the lock in hand.
    bool living() const noexcept { return living_ > 0; }

    /// Waits until no link thread lives, at most `limit`; not at all when called on the link thread itself.
    void waitUntilEnded(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        if (thread_ != std::this_thread::get_id()) {
            changed_.wait_for(lock, limit, [&] { return living_ == 0; });
        }
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::atomic<int> living_{0};
    std::thread::id thread_;
};

}  // namespace kxorbeta_if
