#include <algorithm>
#include <optional>

#include "session/session.h"

// What a host gets to see: its records, and what is known of headsets and line.

namespace velmora {

using kxorbeta_if::systemClock;

Outcome Session::start(Nanoseconds* time, Nanoseconds* utc) {
    const std::lock_guard guard(mutex_);
    if (state_ == State::kClosed) {
        return closed();
    }
    const auto now = systemClock().now();
    const auto wall = std::chrono::system_clock::now();
    receiver_.start(nanoseconds(now));
    if (time != nullptr) {
        *time = nanoseconds(now);
    }
    if (utc != nullptr) {
        *utc = std::chrono::duration_cast<std::chrono::nanoseconds>(wall.time_since_epoch()).count();
    }
    return {};
}

Outcome Session::stop() {
    const std::lock_guard guard(mutex_);
    if (state_ == State::kClosed) {
        return closed();
    }
    receiver_.stop();
    return {};
}

velmora_status Session::read(velmora_record* records, std::size_t stride, std::size_t capacity, std::size_t min,
                             std::int32_t timeoutMs, Signal* cancel, std::size_t& got) {
    if (taking_.exchange(true)) {
        return VELMORA_BUSY;
    }
    min = std::min(min, capacity);
    velmora_status status = VELMORA_OK;
    std::optional<Clock::Time> deadline;
    for (;;) {
        if (cancel != nullptr && cancel->isSet()) {
            status = VELMORA_CANCELLED;
            break;
        }
        // In this order: what came last came before the end.
        const velmora_status ended = ended_.load();
        const std::size_t size = queue_.size();
        if (ended != VELMORA_OK && size == 0) {
            status = ended;
            break;
        }
        if (size >= min || ended != VELMORA_OK) {
            break;
        }
        if (!deadline) {
            deadline = timeoutMs == 0 ? Clock::Time::min() : deadlineIn(timeoutMs);
        }
        if (timeoutMs == 0 || (*deadline != Clock::Time::max() && systemClock().now() >= *deadline)) {
            status = VELMORA_TIMEOUT;
            break;
        }
        queue_.waitFor(min, cancel, *deadline, [&] { return queue_.size() >= min || ended_.load() != VELMORA_OK; });
    }
    got = queue_.take(records, stride, capacity);
    taking_ = false;
    return status;
}

void Session::forEachHeadset(const std::function<void(const velmora_headset&)>& use) const {
    const std::lock_guard guard(mutex_);
    const auto& all = receiver_.headsets().headsets();
    for (std::size_t number = 0; number < all.size(); ++number) {
        velmora_headset headset{};
        copyText(headset.address, all[number].address);
        copyText(headset.name, all[number].name);
        headset.number = static_cast<std::int32_t>(number);
        headset.connected = all[number].connected ? 1 : 0;
        headset.index = all[number].connected ? all[number].index : -1;
        use(headset);
    }
}

velmora_statistics Session::statistics() const {
    const std::lock_guard guard(mutex_);
    velmora_statistics result = receiver_.statistics();
    result.queue_capacity = queue_.rawCapacity();
    result.queue_largest = queue_.largest();
    result.commands = commandCount_;
    return result;
}

Outcome Session::headsetStatistics(int number, velmora_headset_statistics& statistics) const {
    const std::lock_guard guard(mutex_);
    if (number < 0 || static_cast<std::size_t>(number) >= receiver_.headsets().headsets().size()) {
        return {VELMORA_NOT_FOUND};
    }
    statistics.headset = number;
    receiver_.headsetStatistics(number, statistics);
    return {};
}

}  // namespace velmora
