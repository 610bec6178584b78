#include <algorithm>
#include <limits>

#include "base/text.h"
#include "protocol/commands.h"
#include "session/session.h"
#include "session/wait.h"

// What is written to the dongle: commands to headsets, the responses to them, and the writing itself.

namespace velmora {
namespace {

using kxorbeta_if::Port;
using kxorbeta_if::systemClock;
using namespace std::chrono_literals;

constexpr auto kLongestWrite = 1s;     // a dongle that takes a command at all takes it in milliseconds
constexpr auto kShortestWrite = 20ms;  // what even a call gets that is not to wait
constexpr auto kVerdict = 200ms;       // in which the reading thread sees what ended a write

/// What goes out for a command, or why nothing can.
Outcome buildCommand(int target, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts,
                     protocol::CommandEnvelope& envelope, std::uint8_t& code) {
    if (target < VELMORA_ALL || target >= protocol::kHeadsets) {
        return invalid("An index at the dongle is 0 to 15.");
    }
    const protocol::CommandFrame frame = protocol::commandFrame(command, payload);
    if (frame.empty()) {
        return invalid("A command carries 0 to 4, 8, 10, 11 or 12 bytes.");
    }
    const bool alone = (target >= 1 && target <= 9) || target == 11;
    if (target != VELMORA_ALL && !alone && !knownTexts) {
        return failure(VELMORA_NOT_ADDRESSABLE, "The protocol has no text that reaches the headset at index " +
                                                    std::to_string(target) +
                                                    " alone. VELMORA_KNOWN_TEXTS sends the one that others get too.");
    }
    // To all is what the protocol makes of index 0.
    envelope = protocol::commandEnvelope(target == VELMORA_ALL ? 0 : static_cast<std::uint32_t>(target), frame);
    code = frame.bytes()[frame.bytes().size() - 2];
    return {};
}

}  // namespace

/// A request that waits for its response.
struct Session::Request {
    std::uint8_t code;
    Nanoseconds sent = std::numeric_limits<Nanoseconds>::max();  // responses before that belong to nobody
    velmora_status status = VELMORA_OK;
    bool done = false;
    velmora_record response{};
    Signal moved;
};

/// `shown`: what a log shows of it.
Outcome Session::write(std::span<const std::uint8_t> bytes, std::string_view shown, Clock::Time deadline,
                       const Signal* cancel, Nanoseconds* when) {
    switch (commands_.enter(deadline, cancel)) {
        case CommandGate::Entry::kTimeout:
            return failure(VELMORA_TIMEOUT, "Other commands kept this one waiting until its time was over.");
        case CommandGate::Entry::kCancelled:
            return cancelled();
        case CommandGate::Entry::kClosed:
            return closed();
        case CommandGate::Entry::kEntered:
            break;
    }
    Clock::Time until;
    {
        struct Turn {
            CommandGate& gate;
            ~Turn() { gate.leave(); }
        } const turn{commands_};
        log("sending ", shown);
        const auto now = systemClock().now();
        until = std::clamp(deadline, now + kShortestWrite, now + kLongestWrite);
        if (when != nullptr) {
            const std::lock_guard guard(mutex_);
            *when = nanoseconds(now);
        }
        const auto* const stop = cancel != nullptr ? &cancel->state() : nullptr;
        if (port_->write(bytes.data(), bytes.size(), until, stop) == Port::kWritten) {
            return {};
        }
    }
    if (cancel != nullptr && cancel->isSet()) {
        return cancelled();
    }
    const bool refused = systemClock().now() < until;
    std::unique_lock lock(mutex_);
    if (refused) {
        // Most likely the line is gone, and the reading thread about to see that.
        readingEnded_.wait_for(lock, kVerdict, [this] { return !reading_ || state_ != State::kOpen; });
    }
    if (Outcome state = notOpen(); !state.ok()) {
        return state;
    }
    return refused ? failure(VELMORA_FAILED, "The port refused a command. Unplug the dongle and plug it in.")
                   : failure(VELMORA_TIMEOUT,
                             "The port did not take a command in time. If that lasts, unplug the "
                             "dongle and plug it in.");
}

Outcome Session::writeText(std::string_view text, Clock::Time deadline, const Signal* cancel) {
    return write({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, text.substr(0, text.find('\0')),
                 deadline, cancel);
}

Outcome Session::send(int target, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts) {
    protocol::CommandEnvelope envelope;
    std::uint8_t code = 0;
    if (Outcome built = buildCommand(target, command, payload, knownTexts, envelope, code); !built.ok()) {
        return built;
    }
    return writeCommand(envelope.bytes(), Clock::kNever, nullptr, nullptr);
}

Outcome Session::writeCommand(std::span<const std::uint8_t> bytes, Clock::Time deadline, const Signal* cancel,
                              Request* request) {
    {
        const std::lock_guard guard(mutex_);
        if (Outcome state = notOpen(); !state.ok()) {
            return state;
        }
    }
    const std::string shown =
        settings_.log != nullptr ? "command, target and bytes: " + kxorbeta_if::hexText(bytes) : "";
    Outcome outcome = write(bytes, shown, deadline, cancel, request != nullptr ? &request->sent : nullptr);
    if (outcome.ok()) {
        const std::lock_guard guard(mutex_);
        ++commandCount_;
    }
    return outcome;
}

Outcome Session::request(int index, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts,
                         Clock::Time deadline, Signal* cancel, velmora_record& response) {
    protocol::CommandEnvelope envelope;
    Request request;
    if (index == VELMORA_ALL) {
        return invalid("A response comes from one headset: give its index, 0 to 15.");
    }
    if (Outcome built = buildCommand(index, command, payload, knownTexts, envelope, request.code); !built.ok()) {
        return built;
    }
    Request*& slot = requests_[static_cast<std::size_t>(index)];
    {
        const std::lock_guard guard(mutex_);
        if (slot != nullptr) {
            return failure(VELMORA_BUSY, "Another call waits for a response of this headset.");
        }
        slot = &request;
    }
    struct Release {  // however this ends
        Session& session;
        Request*& slot;
        ~Release() {
            const std::lock_guard guard(session.mutex_);
            slot = nullptr;
        }
    } const release{*this, slot};
    Outcome outcome = writeCommand(envelope.bytes(), deadline, cancel, &request);
    if (outcome.ok()) {
        const auto done = [&] {
            const std::lock_guard guard(mutex_);
            return request.done;
        };
        outcome = waitUntil(done, request.moved, cancel, deadline);
        if (outcome.status == VELMORA_TIMEOUT) {
            outcome.text = "The headset did not respond in time.";
        }
    }
    const std::lock_guard guard(mutex_);
    if (!request.done) {
        return outcome;
    }
    if (request.status == VELMORA_OK) {
        response = request.response;
    }
    return request.status == VELMORA_NOT_CONNECTED
               ? failure(VELMORA_NOT_CONNECTED, "The headset left before it responded.")
               : ending(request.status);
}

/// The mutex is held.
void Session::endRequest(std::size_t index, velmora_status reason) {
    Request* const request = requests_[index];
    if (request != nullptr && !request->done) {
        request->done = true;
        request->status = reason;
        request->moved.set();
    }
}

void Session::responded(const velmora_record& response) {
    Request* const request = requests_[static_cast<std::size_t>(response.index)];
    if (request != nullptr && request->code == response.code && response.time >= request->sent && !request->done) {
        request->response = response;
        endRequest(static_cast<std::size_t>(response.index), VELMORA_OK);
    }
}

void Session::left(int index) {
    endRequest(static_cast<std::size_t>(index), VELMORA_NOT_CONNECTED);
}

}  // namespace velmora
