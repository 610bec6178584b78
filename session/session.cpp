#include "session/session.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/pinned_thread.h"
#include "session/environment_platform.h"
#include "session/talk.h"
#include "session/wait.h"

// The life of a handle: opening, reopening, closing, and the thread that reads until the port goes.

namespace velmora {
namespace {

using kxorbeta_if::systemClock;
using namespace std::chrono_literals;

constexpr auto kReopenInterval = 100ms;  // between two looks for a dongle that was unplugged

}  // namespace

Clock::Time deadlineIn(std::int32_t milliseconds) {
    return milliseconds < 0 ? Clock::Time::max() : systemClock().now() + std::chrono::milliseconds(milliseconds);
}

Session::Session(const Environment& environment, const Settings& settings)
    : environment_(environment),
      settings_(settings),
      queue_(settings.queueCapacity),
      commands_(systemClock(), settings.commandGap),
      port_(environment.makePort()),
      receiver_(queue_, *this) {}

Session::~Session() {
    close();
}

Outcome Session::open(const std::string& path) {
    const std::lock_guard life(lifeMutex_);
    path_ = path;
    for (const velmora_port& port : environment_.listPorts(Environment::Holders::kLeaveOut)) {
        if (samePort(path, port.path)) {
            identity_ = port;
        }
    }
    return openPort(path);
}

Outcome Session::openPort(const std::string& path) {
    {
        // An earlier reading thread still closes the port when it has told that it is gone.
        std::unique_lock lock(mutex_);
        readingEnded_.wait(lock, [this] { return !reading_; });
    }
    Outcome outcome = openForDongle(*port_, path, environment_);
    if (!outcome.ok()) {
        return outcome;
    }
    port_->requestLowLatency();
    const std::lock_guard guard(mutex_);
    state_ = State::kOpen;
    ended_ = VELMORA_OK;
    receiver_.opened(nanoseconds(systemClock().now()));
    try {
        reading_ = true;
        kxorbeta_if::startPinnedThread([this] { readUntilEnd(); });
    } catch (...) {
        reading_ = false;
        state_ = State::kGone;
        ended_ = VELMORA_GONE;
        port_->close();
        throw;
    }
    log("opened ", path);
    return {};
}

/// Where the dongle is that was opened first; nothing while it is not there.
std::optional<std::string> Session::whereItIs() const {
    if (identity_.usb_serial[0] == '\0') {
        return path_;
    }
    for (const velmora_port& port : environment_.listPorts(Environment::Holders::kLeaveOut)) {
        if (std::strcmp(port.usb_serial, identity_.usb_serial) == 0 && port.usb_vendor == identity_.usb_vendor &&
            port.usb_product == identity_.usb_product) {
            return port.path;
        }
    }
    return std::nullopt;
}

/// One look for the dongle that was opened first.
Outcome Session::openWhereItIs() {
    const std::lock_guard life(lifeMutex_);
    {
        const std::lock_guard guard(mutex_);
        if (state_ == State::kClosed) {
            return closed();
        }
    }
    if (const auto path = whereItIs()) {
        return openPort(*path);
    }
    return failure(VELMORA_NOT_FOUND,
                   std::string("No port has the dongle's USB serial number ") + identity_.usb_serial + "; plug it in.");
}

Outcome Session::reopen(Clock::Time deadline, Signal* cancel) {
    Talk talk(*this);
    {
        const std::lock_guard guard(mutex_);
        if (state_ == State::kOpen) {
            return {};
        }
        if (Outcome taken = talk.take(); !taken.ok()) {
            return taken;
        }
        receiver_.conversation().begin(Conversation::Topic::kReopen);
    }
    if (cancel != nullptr && cancel->isSet()) {
        return cancelled();
    }
    Outcome last;
    const auto ended = [&] {
        last = openWhereItIs();
        return last.ok() || last.status == VELMORA_CLOSED;
    };
    Outcome outcome = waitUntil(ended, conversationMoved_, cancel, deadline, kReopenInterval);
    if (outcome.ok()) {
        return last;
    }
    if (outcome.status == VELMORA_TIMEOUT) {
        return failure(VELMORA_TIMEOUT, "The dongle did not come back. " + last.text, last.systemCode);
    }
    return outcome;
}

void Session::close() {
    commands_.close();
    const auto endAll = [this] {
        const std::lock_guard guard(mutex_);
        state_ = State::kClosed;
        endAllWaiting(VELMORA_CLOSED);
    };
    endAll();  // also a reopening, which holds the following for moments only
    const std::lock_guard life(lifeMutex_);
    endAll();  // also what began in between, when a reopening came to its end
    port_->close();
    std::unique_lock lock(mutex_);
    readingEnded_.wait(lock, [this] { return !reading_; });
    ended_ = VELMORA_CLOSED;
    queue_.wakeTaker();
}

void Session::readUntilEnd() {
    Clock::Time due = Clock::kNever;
    for (bool going = true; going;) {
        const auto room = receiver_.room();
        const int count = port_->readAvailable(room.data(), static_cast<std::uint32_t>(room.size()),
                                               std::min(due, systemClock().now() + Receiver::kLongestWait));
        const Nanoseconds now = nanoseconds(systemClock().now());
        const std::lock_guard guard(mutex_);
        try {
            going = take(count, now);
        } catch (...) {  // no memory, or a log function that throws
            lineIsGone(now);
            going = false;
        }
        due = receiver_.due();
    }
    port_->close();  // at once, so that its name is free when it is plugged in again
    const std::lock_guard guard(mutex_);
    reading_ = false;
    readingEnded_.notify_all();  // under the mutex: whoever waits for this may destroy it all
}

/// The mutex is held. What the port has brought; false when there will be no more.
bool Session::take(int count, Nanoseconds now) {
    if (state_ != State::kOpen) {
        return false;
    }
    if (count < 0) {
        lineIsGone(now);
        log("the port is gone", "");
        return false;
    }
    receiver_.received(static_cast<std::size_t>(count), now);
    queue_.publish();
    return true;
}

/// The mutex is held.
void Session::lineIsGone(Nanoseconds now) {
    if (state_ != State::kOpen) {
        return;
    }
    state_ = State::kGone;
    endAllWaiting(VELMORA_GONE);  // before all headsets are seen to have left, which is not why calls end
    receiver_.lineIsGone(now, port_->systemError());
    queue_.publish();
    ended_ = VELMORA_GONE;
    queue_.wakeTaker();
}

/// The mutex is held.
void Session::endAllWaiting(velmora_status reason) {
    receiver_.conversation().brokenOff(reason);
    conversationMoved_.set();
    for (std::size_t index = 0; index < requests_.size(); ++index) {
        endRequest(index, reason);
    }
}

/// The mutex is held.
Outcome Session::notOpen() const {
    switch (state_) {
        case State::kOpen:
            return {};
        case State::kGone:
            return gone();
        default:
            return closed();
    }
}

void Session::restarted() {
    endAllWaiting(VELMORA_RESTARTED);
}

void Session::log(std::string_view what, std::string_view text) const {
    if (settings_.log != nullptr) {
        const std::string line = std::string(what) + std::string(text);
        const std::lock_guard guard(logMutex_);
        settings_.log(settings_.logContext, nanoseconds(systemClock().now()), line.c_str());
    }
}

}  // namespace velmora
