#include "support/virtual_clock.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace test {

namespace {
using namespace std::chrono_literals;

// Nothing in this library waits for days; a test that does would never end.
constexpr auto kTooLate = std::chrono::hours(100);
}  // namespace

VirtualClock::~VirtualClock() {
    Lock guard(mutex_);
    allEnded_.wait(guard, [&] { return threads_ == 0; });
}

VirtualClock::Time VirtualClock::now() {
    const Lock guard(mutex_);
    return now_;
}

/// Called with the lock held by whoever has stopped running: jumps from due moment to due moment until a thread runs.
void VirtualClock::passTime() {
    while (running_ == 0) {
        Time next = Time::max();
        for (const Waiter& waiter : waiters_) {
            next = std::min(next, waiter.deadline);
        }
        if (next == Time::max()) {
            return;  // all wait for something that only a thread outside of this clock can bring
        }
        for (Source* const source : sources_) {
            if (const auto due = source->nextDue()) {
                next = std::min(next, *due);
            }
        }
        now_ = std::max(now_, next);
        if (now_.time_since_epoch() > kTooLate) {
            std::fputs("the virtual clock runs without end\n", stderr);
            std::abort();
        }
        for (Source* const source : sources_) {
            source->advance(now_);
        }
        for (Waiter& waiter : waiters_) {
            if (!waiter.woken && waiter.deadline <= now_) {
                waiter.woken = true;
                ++running_;
            }
        }
        woken_.notify_all();
    }
}

void VirtualClock::waitOn(Lock& lock, const void* channel, Time deadline) {
    if (deadline <= now_) {
        return;
    }
    const auto waiter = waiters_.insert(waiters_.end(), {channel, deadline});
    --running_;
    passTime();
    woken_.wait(lock, [&] { return waiter->woken; });
    waiters_.erase(waiter);
}

void VirtualClock::wakeWaiters(const void* channel) {
    for (Waiter& waiter : waiters_) {
        if (waiter.channel == channel && !waiter.woken) {
            waiter.woken = true;
            ++running_;
        }
    }
    woken_.notify_all();
}

void VirtualClock::wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Time deadline) {
    Lock own(mutex_);
    lock.unlock();  // behind our own lock, so that no notification is missed
    waitOn(own, &changed, deadline);
    own.unlock();
    lock.lock();
}

void VirtualClock::notify(std::condition_variable& changed) {
    const Lock guard(mutex_);
    wakeWaiters(&changed);
}

void VirtualClock::sleepUntil(Time deadline) {
    Lock guard(mutex_);
    waitOn(guard, nullptr, deadline);
}

void VirtualClock::threadStarting() {
    const Lock guard(mutex_);
    ++threads_;
    ++running_;
}

void VirtualClock::threadEnding() noexcept {
    const Lock guard(mutex_);
    --running_;
    passTime();
    --threads_;
    allEnded_.notify_all();
}

std::thread VirtualClock::thread(std::function<void()> work) {
    threadStarting();
    return std::thread([this, work = std::move(work)] {
        work();
        {
            const Lock guard(mutex_);
            ended_.insert(std::this_thread::get_id());
            wakeWaiters(&ended_);
        }
        threadEnding();
    });
}

void VirtualClock::join(std::thread& thread) {
    {
        Lock guard(mutex_);
        while (ended_.erase(thread.get_id()) == 0) {
            waitOn(guard, &ended_, kNever);
        }
    }
    thread.join();
}

bool VirtualClock::eventually(const std::function<bool()>& condition) {
    const Time bound = now() + 1min;
    while (!condition()) {
        if (now() >= bound) {
            return false;
        }
        sleepFor(1ms);
    }
    return true;
}

void VirtualClock::add(Source& source) {
    const Lock guard(mutex_);
    sources_.push_back(&source);
}

void VirtualClock::remove(Source& source) {
    const Lock guard(mutex_);
    std::erase(sources_, &source);
}

}  // namespace test
