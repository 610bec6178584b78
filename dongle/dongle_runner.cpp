#include "dongle/dongle_runner.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace dongle {

namespace {

// Longest sleep: how late an action of another thread, or the end, is noticed.
constexpr Time kLongestWait = 10ms;
// How often a full line is tried again, and how long before its bytes are given up.
constexpr Time kFullRetry = 2ms;
constexpr Time kFullPatience = 1s;
// More waits only when the settings ask for longer gaps than the data leaves room for.
constexpr std::size_t kMostWrites = 1000;
// A pause of the whole machine is not made up for beyond this.
constexpr Time kLongestLag = 1s;

}  // namespace

Runner::Runner(Settings settings, std::unique_ptr<Transport> transport)
    : Runner(std::move(settings), std::move(transport), nullptr) {}

Runner::Runner(Settings settings, const LineMaker& maker) : Runner(std::move(settings), maker(), maker) {}

Runner::Runner(Settings settings, std::unique_ptr<Transport> transport, LineMaker maker)
    : engine_(std::move(settings)),
      lastClock_(std::chrono::steady_clock::now()),
      maker_(std::move(maker)),
      hostPath_(transport->hostPath()),
      transport_(std::move(transport)) {
    if (!maker_ && engine_.settings().faults.replugEvery > Time{0}) {
        throw std::invalid_argument("a line that can be made once cannot be plugged in again");
    }
    thread_ = std::thread([this] { run(); });
}

Runner::~Runner() {
    stop_ = true;
    thread_.join();
}

std::string Runner::hostPath() const {
    const std::lock_guard lock(mutex_);
    return hostPath_;
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
    changed_.wait(lock, [this] { return hungUp_.load(); });
}

void Runner::unplug() {
    std::unique_lock lock(mutex_);
    engine_.unplug();
    changed_.wait(lock, [this, wanted = engine_.unpluggings()] { return unpluggings_ >= wanted; });
}

void Runner::plug() {
    std::unique_lock lock(mutex_);
    if (engine_.pluggedIn()) {
        return;
    }
    if (!maker_ || engine_.hungUp()) {
        throw std::logic_error("this dongle cannot be plugged in again");
    }
    engine_.plug();
    changed_.wait(lock, [this, before = openings_] { return openings_ != before || hungUp_; });
    if (problem_) {
        std::rethrow_exception(problem_);
    }
}

std::string Runner::problem() const {
    const std::lock_guard lock(mutex_);
    try {
        if (problem_) {
            std::rethrow_exception(problem_);
        }
    } catch (const std::exception& problem) {
        return problem.what();
    }
    return "";
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
            followPort();
            for (Write& write : engine_.takeWrites()) {
                queue(std::move(write));
            }
            wait = std::min(wait, pump(time) - time);
            if (const auto due = engine_.nextDue()) {
                wait = std::min(wait, *due - time);
            }
        }
        wait = std::max(wait, Time{0});
        if (!transport_) {
            std::this_thread::sleep_for(wait);
            continue;
        }
        const std::size_t count = transport_->read(buffer, wait);
        const auto left = transport_->leftUnread();
        if (count == 0 && left == 0) {
            continue;
        }
        const std::lock_guard lock(mutex_);
        countUnread(left, false);
        counters_.bytesRead += count;
        engine_.receive(std::span(buffer).first(count), now());
    }
    // So that the account ends with every packet decided.
    const std::lock_guard lock(mutex_);
    engine_.hangUp();
    followPort();
}

void Runner::followPort() {
    // A pause of this thread may have covered the whole time unplugged; the host's port has to go all the same.
    const bool went = unpluggings_ != engine_.unpluggings();
    unpluggings_ = engine_.unpluggings();
    if (transport_ && went) {
        closeLine();
    }
    if (!transport_ && engine_.pluggedIn()) {
        openLine();
    }
    hungUp_ = engine_.hungUp();
    if (went || hungUp_) {
        changed_.notify_all();
    }
}

void Runner::closeLine() {
    for (const Write& write : backlog_) {
        counters_.bytesDropped += write.bytes.size() - frontWritten_;
        if (Account* account = engine_.account()) {
            account->dropped(write.pieces, frontWritten_, DropCause::Gone);
        }
        frontWritten_ = 0;
    }
    backlog_.clear();
    fullSince_.reset();
    if (engine_.account() != nullptr) {
        countUnread(transport_->takeBack(), true);
    }
    transport_->hangUp();
    transport_.reset();
}

void Runner::openLine() {
    try {
        transport_ = maker_();
        hostPath_ = transport_->hostPath();
        problem_ = nullptr;
    } catch (...) {
        problem_ = std::current_exception();
        transport_.reset();
        engine_.unplug();
        unpluggings_ = engine_.unpluggings();
    }
    ++openings_;
    changed_.notify_all();
}

void Runner::countUnread(std::optional<std::size_t> unread, bool gone) {
    counters_.unknownRests += unread ? 0 : 1;
    counters_.bytesUnread += unread.value_or(0);
    Account* const account = engine_.account();
    if (account != nullptr && (gone || unread.value_or(0) > 0)) {
        account->portWent(counters_.bytesWritten, unread.value_or(0));
    }
}

void Runner::queue(Write write) {
    if (backlog_.size() < kMostWrites) {
        backlog_.push_back(std::move(write));
        return;
    }
    counters_.bytesDropped += write.bytes.size();
    if (Account* account = engine_.account()) {
        account->dropped(write.pieces, 0, DropCause::LineFull);
    }
}

Time Runner::pump(Time time) {
    while (!backlog_.empty()) {
        Write& write = backlog_.front();
        const Time earliest = lastWrite_ + std::max(lastGap_, write.gap);
        if (frontWritten_ == 0 && time < earliest) {
            return earliest;
        }

        Account* const account = engine_.account();
        const auto rest = std::span(write.bytes).subspan(frontWritten_);
        const bool present = transport_->hostPresent();
        const std::size_t taken = present ? transport_->write(rest) : 0;
        if (account != nullptr) {
            account->taken(write.pieces, frontWritten_, frontWritten_ + taken, counters_.bytesWritten, now());
        }
        counters_.bytesWritten += taken;
        frontWritten_ += taken;
        if (taken > 0) {
            // The time after the write: this thread may have been held up in front of it, and the gap begins here.
            lastWrite_ = now();
            lastGap_ = write.gap;
            fullSince_.reset();
        }
        if (frontWritten_ < write.bytes.size()) {
            if (!fullSince_) {
                fullSince_ = time;
            }
            if (present && time - *fullSince_ < kFullPatience) {
                return time + kFullRetry;
            }
            // Until the line takes bytes again, everything is dropped at once, as by a dongle whose host has gone.
            counters_.bytesDropped += write.bytes.size() - frontWritten_;
            if (account != nullptr) {
                account->dropped(write.pieces, frontWritten_, present ? DropCause::LineFull : DropCause::NoHost);
            }
        }
        frontWritten_ = 0;
        backlog_.pop_front();
    }
    return time + kLongestWait;
}

}  // namespace dongle
