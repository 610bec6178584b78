#include "dongle/dongle_runner.h"

#include <algorithm>
#include <array>
#include <optional>

namespace dongle {

namespace {

// Longest sleep: how late an action of another thread, or the end, is noticed.
constexpr Time kLongestWait = 10ms;
// How often a full line is tried again, and how long before its bytes are given up.
constexpr Time kFullRetry = 2ms;
constexpr Time kFullPatience = 1s;
// More waits only when the settings ask for longer gaps than the data leaves room for.
constexpr std::size_t kMostWaiting = 1000;
// A pause of the whole machine is not made up for beyond this.
constexpr Time kLongestLag = 1s;

}  // namespace

Runner::Runner(Settings settings, std::unique_ptr<Transport> transport)
    : engine_(std::move(settings)),
      lastClock_(std::chrono::steady_clock::now()),
      transport_(std::move(transport)),
      hostPath_(transport_->hostPath()),
      thread_([this] { run(); }) {}

Runner::~Runner() {
    stop_ = true;
    thread_.join();
}

Time Runner::now() {
    const auto clock = std::chrono::steady_clock::now();
    now_ += std::min<Time>(clock - lastClock_, kLongestLag);
    lastClock_ = clock;
    return now_;
}

void Runner::hangUp() {
    std::unique_lock lock(mutex_);
    engine_.hangUp();
    closed_.wait(lock, [this] { return lineClosed_.load(); });
}

RunnerCounters Runner::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

void Runner::run() {
    std::array<std::uint8_t, 4096> buffer{};
    while (!stop_) {
        Time wait = kLongestWait;
        {
            const std::lock_guard lock(mutex_);
            const Time time = now();
            engine_.advance(time);
            for (Write& write : engine_.takeWrites())
                queue(std::move(write));
            if (engine_.hungUp() && !lineClosed_) {
                transport_->hangUp();
                backlog_.clear();
                lineClosed_ = true;
                closed_.notify_all();
            }
            wait = std::min(wait, pump(time) - time);
            if (const auto due = engine_.nextDue())
                wait = std::min(wait, *due - time);
        }
        const std::size_t count = transport_->read(buffer, std::max(wait, Time{0}));
        if (count > 0) {
            const std::lock_guard lock(mutex_);
            counters_.bytesRead += count;
            engine_.receive(std::span(buffer).first(count), now());
        }
    }
}

void Runner::queue(Write write) {
    if (backlog_.size() < kMostWaiting) {
        backlog_.push_back(std::move(write));
    } else {
        counters_.bytesDropped += write.bytes.size();
    }
}

Time Runner::pump(Time time) {
    while (!backlog_.empty()) {
        Write& write = backlog_.front();
        const Time earliest = lastWrite_ + std::max(lastGap_, write.gap);
        if (frontWritten_ == 0 && time < earliest)
            return earliest;

        const auto rest = std::span(write.bytes).subspan(frontWritten_);
        const bool present = transport_->hostPresent();
        const std::size_t taken = present ? transport_->write(rest) : 0;
        counters_.bytesWritten += taken;
        frontWritten_ += taken;
        if (taken > 0) {
            // The time after the write: this thread may have been held up in front of it, and the gap begins here.
            lastWrite_ = now();
            lastGap_ = write.gap;
            fullSince_.reset();
        }
        if (frontWritten_ < write.bytes.size()) {
            if (!fullSince_)
                fullSince_ = time;
            if (present && time - *fullSince_ < kFullPatience)
                return time + kFullRetry;
            // Until the line takes bytes again, everything is dropped at once, as by a dongle whose host has gone.
            counters_.bytesDropped += write.bytes.size() - frontWritten_;
        }
        frontWritten_ = 0;
        backlog_.pop_front();
    }
    return time + kLongestWait;
}

}  // namespace dongle
