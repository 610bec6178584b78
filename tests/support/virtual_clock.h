#pragma once

#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/clock.h"

namespace test {

/// Time that passes only while everybody waits: as soon as all threads that live on this clock do, it jumps to the next
/// moment at which something is due. So hours of waiting take no time, and what happens when does not depend on how
/// busy the machine is.
///
/// The thread that makes the clock lives on it, and so does every thread announced by threadStarting(). A thread that
/// waits for anything but the clock holds time up.
class VirtualClock : public kxorbeta_if::Clock {
  public:
    using Lock = std::unique_lock<std::mutex>;

    /// Something that happens by itself, like a device on a line. Called with the clock's lock held; the clock stands
    /// still meanwhile.
    class Source {
      public:
        virtual ~Source() = default;
        virtual std::optional<Time> nextDue() = 0;
        virtual void advance(Time now) = 0;
    };

    VirtualClock() = default;
    /// Waits until all announced threads have ended.
    ~VirtualClock() override;
    VirtualClock(const VirtualClock&) = delete;
    VirtualClock& operator=(const VirtualClock&) = delete;

    Time now() override;
    void wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Time deadline) override;
    void notify(std::condition_variable& changed) override;
    void sleepUntil(Time deadline) override;
    void threadStarting() override;
    void threadEnding() noexcept override;

    /// A thread of the test that lives on this clock, to be joined through it.
    std::thread thread(std::function<void()> work);
    void join(std::thread& thread);

    /// Lets time pass until `condition` holds; false when it does not within a virtual minute.
    bool eventually(const std::function<bool()>& condition);

    // For sources and those who wait for them.
    void add(Source& source);
    void remove(Source& source);
    Lock lock() { return Lock(mutex_); }
    /// Waits until somebody wakes the channel or `deadline` has come.
    void waitOn(Lock& lock, const void* channel, Time deadline);
    /// With the lock held, as in a source.
    void wakeWaiters(const void* channel);
    Time nowLocked() const { return now_; }

  private:
    struct Waiter {
        const void* channel;
        Time deadline;
        bool woken = false;
    };

    void passTime();

    std::mutex mutex_;
    std::condition_variable woken_;
    Time now_{std::chrono::hours(1)};
    int threads_ = 0;  // announced and not yet ended
    int running_ = 1;
    std::condition_variable allEnded_;
    std::list<Waiter> waiters_;
    std::vector<Source*> sources_;
    std::set<std::thread::id> ended_;  // of the test's threads
};

}  // namespace test
