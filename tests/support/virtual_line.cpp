#include "support/virtual_line.h"

#include <algorithm>
#include <utility>

namespace test {

namespace {
using namespace std::chrono_literals;
constexpr auto kByteGap = 10ms;
}  // namespace

VirtualLine::VirtualLine(VirtualClock& clock) : clock_(clock) {
    clock_.add(*this);
}

VirtualLine::~VirtualLine() {
    clock_.remove(*this);
}

void VirtualLine::plug(dongle::Settings settings) {
    const auto lock = clock_.lock();
    engine_ = std::make_unique<dongle::Engine>(std::move(settings));
    start_ = lineFree_ = clock_.nowLocked();
    lastGap_ = dongle::Time{0};
    writes_.clear();
    open_ = true;
}

bool VirtualLine::isOpen() const {
    const auto lock = clock_.lock();
    return open_;
}

kxorbeta_if::Port::Result VirtualLine::open(const char*, std::uint32_t, int, int, int) {
    const auto lock = clock_.lock();
    open_ = true;
    return kOpened;
}

void VirtualLine::close() {
    const auto lock = clock_.lock();
    open_ = false;
    arrived_.clear();
    clock_.wakeWaiters(this);
}

std::optional<VirtualLine::Time> VirtualLine::nextDue() {
    std::optional<Time> due;
    if (const auto engine = engine_ != nullptr ? engine_->nextDue() : std::nullopt) {
        due = start_ + *engine;
    }
    if (!writes_.empty()) {
        const Time next = lineFree_ + std::max(lastGap_, writes_.front().gap);
        due = due ? std::min(*due, next) : next;
    }
    return due;
}

void VirtualLine::advance(Time now) {
    if (engine_ == nullptr) {
        return;
    }
    engine_->advance(dongleTime(now));
    for (dongle::Write& write : engine_->takeWrites()) {
        writes_.push_back(std::move(write));
    }
    while (!writes_.empty() && lineFree_ + std::max(lastGap_, writes_.front().gap) <= now) {
        const dongle::Write& write = writes_.front();
        if (open_) {
            arrived_.insert(arrived_.end(), write.bytes.begin(), write.bytes.end());
        }
        lineFree_ = now;
        lastGap_ = write.gap;
        writes_.pop_front();
    }
    if (!arrived_.empty() || hungUp()) {
        clock_.wakeWaiters(this);
    }
}

int VirtualLine::take(VirtualClock::Lock& lock, void* buffer, std::uint32_t maxBytes, Time deadline, bool wakeable) {
    for (;;) {
        if (!open_) {
            return 0;
        }
        if (!arrived_.empty()) {
            const auto count = std::min<std::size_t>(maxBytes, arrived_.size());
            const auto end = arrived_.begin() + static_cast<std::ptrdiff_t>(count);
            std::copy(arrived_.begin(), end, static_cast<std::uint8_t*>(buffer));
            arrived_.erase(arrived_.begin(), end);
            return static_cast<int>(count);
        }
        if (hungUp()) {
            return kReadFailed;
        }
        if (wakeable && std::exchange(woken_, false)) {
            return 0;
        }
        if (clock_.nowLocked() >= deadline) {
            return 0;
        }
        clock_.waitOn(lock, this, deadline);
    }
}

int VirtualLine::read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) {
    auto lock = clock_.lock();
    if (!open_) {
        return kTimeoutNotApplied;
    }
    const Time deadline = clock_.nowLocked() + std::chrono::milliseconds(timeoutMs);
    Time next = deadline;
    maxBytes = static_cast<std::uint32_t>(std::min<std::size_t>(maxBytes, largestRead));
    std::uint32_t count = 0;
    while (count < maxBytes) {
        const int got = take(lock, static_cast<std::uint8_t*>(buffer) + count, maxBytes - count, next, false);
        if (got <= 0) {
            return count > 0 ? static_cast<int>(count) : got;
        }
        count += static_cast<std::uint32_t>(got);
        next = std::min(deadline, clock_.nowLocked() + kByteGap);
    }
    return static_cast<int>(count);
}

int VirtualLine::readAvailable(void* buffer, std::uint32_t maxBytes, Time deadline) {
    auto lock = clock_.lock();
    return open_ ? take(lock, buffer, maxBytes, deadline, true) : kReadFailed;
}

int VirtualLine::write(const void* data, std::size_t length, Time, const std::atomic<std::uint32_t>*) {
    const auto lock = clock_.lock();
    if (!open_ || hungUp()) {
        return kWriteFailed;
    }
    const auto* const bytes = static_cast<const std::uint8_t*>(data);
    hostWrites_.emplace_back(bytes, bytes + length);
    if (engine_ == nullptr) {
        return kWritten;
    }
    engine_->receive({bytes, length}, dongleTime(clock_.nowLocked()));
    advance(clock_.nowLocked());
    return kWritten;
}

void VirtualLine::wake() {
    const auto lock = clock_.lock();
    woken_ = true;
    clock_.wakeWaiters(this);
}

std::vector<std::string> VirtualLine::hostWrites() {
    const auto lock = clock_.lock();
    return hostWrites_;
}

}  // namespace test
