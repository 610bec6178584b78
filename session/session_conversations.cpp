#include <utility>

#include "protocol/commands.h"
#include "protocol/reports.h"
#include "session/session.h"
#include "session/talk.h"
#include "session/wait.h"

// What a host asks the dongle for: a scan, connections, disconnections. Each call takes the conversation, writes its
// text, and waits for what the dongle says to it.

namespace velmora {

Session::Talk::~Talk() {
    if (mine_) {
        const std::lock_guard guard(session_.mutex_);
        session_.receiver_.finishConversation(asked_);
    }
}

Outcome Session::Talk::take() {
    if (session_.receiver_.conversation().topic() != Conversation::Topic::kNone) {
        return failure(VELMORA_BUSY, "Another call is scanning, connecting, dropping or reopening on this handle.");
    }
    mine_ = true;
    session_.conversationMoved_.reset();
    return {};
}

Outcome Session::Talk::begin(const std::function<Outcome()>& start) {
    const std::lock_guard guard(session_.mutex_);
    Outcome outcome = session_.notOpen();
    if (outcome.ok()) {
        outcome = take();
    }
    return outcome.ok() ? start() : outcome;
}

Outcome Session::Talk::ask(std::string_view command, Clock::Time deadline, Signal* cancel, const OnFound& onFound) {
    Outcome outcome = session_.writeText(command, deadline, cancel);
    if (!outcome.ok()) {
        return outcome;
    }
    asked_ = true;
    std::optional<velmora_status> result;
    std::size_t told = 0;
    const auto ended = [&] {
        std::vector<velmora_found> found;
        {
            const std::lock_guard guard(session_.mutex_);
            const Conversation& conversation = session_.receiver_.conversation();
            result = conversation.result();
            if (onFound) {
                const auto& all = conversation.found();
                for (; told < all.size(); ++told) {
                    found.push_back(all[told]);
                }
            }
        }
        for (const velmora_found& headset : found) {
            onFound(headset);
        }
        return result.has_value();
    };
    outcome = waitUntil(ended, session_.conversationMoved_, cancel, deadline);
    return outcome.ok() ? ending(*result) : outcome;
}

Outcome Session::scan(const OnFound& onFound, Clock::Time deadline, Signal* cancel) {
    Talk talk(*this);
    const auto start = [&]() -> Outcome {
        if (receiver_.headsets().anyConnected()) {
            return failure(VELMORA_BUSY, "Headsets are connected: a dongle scans only without any. Drop them first.");
        }
        receiver_.beginScan();
        return {};
    };
    if (Outcome begun = talk.begin(start); !begun.ok()) {
        return begun;
    }
    Outcome outcome = talk.ask(protocol::kScan, deadline, cancel, onFound);
    if (outcome.status == VELMORA_TIMEOUT && outcome.text.empty()) {
        outcome.text = "The dongle did not say in time that its scan is over; it may take 20 seconds.";
    }
    return outcome;
}

Outcome Session::connect(std::span<velmora_wanted> wanted, bool allowUnproved, Clock::Time deadline, Signal* cancel) {
    std::string command(protocol::kConnectGroup);
    std::vector<Conversation::Member> members;
    for (const velmora_wanted& headset : wanted) {
        protocol::appendGroupMember(command, members.empty(), headset.address, headset.option);
        members.push_back({headset.address});
    }
    if (command.size() > protocol::kLongestCommandText) {
        return invalid("The options make the command longer than the 512 characters that a dongle takes.");
    }
    command.push_back('\0');
    Talk talk(*this);
    const auto start = [&]() -> Outcome {
        if (receiver_.headsets().anyConnected() && !allowUnproved) {
            return failure(
                VELMORA_BUSY,
                "Headsets are connected. Connect all in one call, or drop these first; VELMORA_ALLOW_UNPROVED "
                "tries what no dongle is known to do.");
        }
        receiver_.conversation().beginConnect(std::move(members));
        return {};
    };
    if (Outcome begun = talk.begin(start); !begun.ok()) {
        return begun;
    }
    Outcome outcome = talk.ask(command, deadline, cancel);
    std::string missing;
    {
        const std::lock_guard guard(mutex_);
        const auto& reached = receiver_.conversation().members();
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            if (reached[i].connected) {
                wanted[i].status = VELMORA_OK;
                wanted[i].headset = reached[i].number;
                wanted[i].index = reached[i].index;
            } else {
                missing += (missing.empty() ? "" : ", ") + reached[i].address;
            }
        }
    }
    if (outcome.status == VELMORA_NOT_CONNECTED) {
        outcome.text = "Not connected: " + missing + ". Switch these headsets on, bring them nearer, try again.";
    } else if (outcome.status == VELMORA_TIMEOUT && outcome.text.empty()) {
        outcome.text = "The dongle did not say in time that its attempt is over. Not connected so far: " +
                       (missing.empty() ? "none" : missing) + ".";
    }
    return outcome;
}

Outcome Session::drop(const std::string& address, Clock::Time deadline, Signal* cancel) {
    Talk talk(*this);
    const auto start = [&]() -> Outcome {
        if (!receiver_.headsets().findConnected(address)) {
            return failure(VELMORA_NOT_FOUND, "No headset with the address " + address + " is connected.");
        }
        receiver_.conversation().beginDrop(address);
        return {};
    };
    if (Outcome begun = talk.begin(start); !begun.ok()) {
        return begun;
    }
    std::string command = std::string(protocol::kDisconnectOne) + address;
    command.push_back('\0');
    Outcome outcome = talk.ask(command, deadline, cancel);
    if (outcome.status == VELMORA_TIMEOUT && outcome.text.empty()) {
        outcome.text = "The dongle did not report in time that it dropped " + address + ".";
    }
    return outcome;
}

Outcome Session::dropAll(bool allowUnproved) {
    Talk talk(*this);
    const auto start = [&]() -> Outcome {
        if (!receiver_.headsets().anyConnected() && !allowUnproved) {
            return failure(
                VELMORA_BUSY,
                "No headset is known to be connected; VELMORA_ALLOW_UNPROVED tells the dongle all the same.");
        }
        receiver_.conversation().begin(Conversation::Topic::kDropAll);
        return {};
    };
    if (Outcome begun = talk.begin(start); !begun.ok()) {
        return begun;
    }
    Outcome outcome = writeText(protocol::kDisconnectAll, Clock::kNever, nullptr);
    if (outcome.ok()) {
        const std::lock_guard guard(mutex_);
        if (state_ == State::kOpen) {
            receiver_.allDropped(nanoseconds(kxorbeta_if::systemClock().now()));
            queue_.publish();
        }
    }
    return outcome;
}

}  // namespace velmora
