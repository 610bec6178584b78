#include "base/clock.h"

#include <thread>

#include "base/never_destroyed.h"

namespace kxorbeta_if {
namespace {

class SystemClock : public Clock {
  public:
    Time now() override { return std::chrono::steady_clock::now(); }
    void wait(std::condition_variable& changed, std::unique_lock<std::mutex>& lock, Time deadline) override {
        if (deadline == kNever) {
            changed.wait(lock);  // such a moment does not stand up to being converted to other clocks
        } else {
            changed.wait_until(lock, deadline);
        }
    }
    void notify(std::condition_variable& changed) override { changed.notify_all(); }
    void sleepUntil(Time deadline) override { std::this_thread::sleep_until(deadline); }
};

}  // namespace

Clock& systemClock() {
    static NeverDestroyed<SystemClock> instance;
    return *instance;
}

}  // namespace kxorbeta_if
