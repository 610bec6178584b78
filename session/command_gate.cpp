#include "session/command_gate.h"

#include <algorithm>
#include <chrono>

namespace velmora {

CommandGate::Entry CommandGate::enter(Clock::Time deadline, const Signal* cancel) {
    // The wait is for a mutex and a signal at once; turns are so short that looking at the signal now and then will do.
    constexpr std::chrono::milliseconds kLook{10};
    std::unique_lock lock(mutex_);
    for (;;) {
        if (closed_) {
            return Entry::kClosed;
        }
        if (cancel != nullptr && cancel->isSet()) {
            return Entry::kCancelled;
        }
        const Clock::Time now = clock_.now();
        if (!inside_ && now >= next_) {
            inside_ = true;
            return Entry::kEntered;
        }
        if (now >= deadline) {
            return Entry::kTimeout;
        }
        clock_.wait(changed_, lock, std::min({deadline, now + kLook, inside_ ? Clock::kNever : next_}));
    }
}

void CommandGate::leave() {
    const std::lock_guard guard(mutex_);
    inside_ = false;
    next_ = clock_.now() + gap_;
    clock_.notify(changed_);
}

void CommandGate::close() {
    const std::lock_guard guard(mutex_);
    closed_ = true;
    clock_.notify(changed_);
}

}  // namespace velmora
