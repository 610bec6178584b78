#include "session/conversation.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "session/headset_table.h"
#include "session/outcome.h"

namespace velmora {
void Conversation::begin(Topic topic) {
    topic_ = topic;
    result_.reset();
}

void Conversation::beginScan() {
    begin(Topic::kScan);
    found_.clear();
}

void Conversation::beginConnect(std::vector<Member> members) {
    begin(Topic::kConnect);
    members_ = std::move(members);
}

void Conversation::beginDrop(std::string address) {
    begin(Topic::kDrop);
    members_ = {{std::move(address)}};
}

void Conversation::finish(bool asked) {
    if (asked && !result_) {
        scanEndsOwed_ += topic_ == Topic::kScan ? 1 : 0;
        connectionEndsOwed_ += topic_ == Topic::kConnect ? 1 : 0;
    }
    topic_ = Topic::kNone;
}

/// Whatever came before this belongs to earlier scans: a dongle that begins anew owes no end for those.
bool Conversation::scanStarted() {
    if (topic_ == Topic::kScan) {
        scanEndsOwed_ = 0;
    }
    return false;
}

bool Conversation::scanFound(const protocol::ScanFields& fields, int number) {
    if (topic_ != Topic::kScan || result_ || found_.size() >= kMostFound) {
        return false;
    }
    const auto same = [&](const velmora_found& known) { return sameAddress(known.address, fields.address); };
    if (std::any_of(found_.begin(), found_.end(), same)) {
        return false;
    }
    velmora_found headset{};
    copyText(headset.address, fields.address);
    copyText(headset.name, fields.name);
    headset.option = fields.option ? 1 : 0;
    headset.headset = number;
    found_.push_back(headset);
    return true;
}

bool Conversation::scanEnded() {
    if (scanEndsOwed_ > 0) {
        --scanEndsOwed_;
        return false;
    }
    if (topic_ != Topic::kScan || result_) {
        return false;
    }
    result_ = VELMORA_OK;
    return true;
}

bool Conversation::connected(std::string_view address, int number, int index) {
    if (topic_ != Topic::kConnect || result_) {
        return false;
    }
    bool asked = false;
    for (Member& member : members_) {
        if (sameAddress(member.address, address)) {
            asked = true;
            member.connected = true;
            member.number = number;
            member.index = index;
        }
    }
    return asked;
}

bool Conversation::connectionEnded() {
    const bool all =
        std::all_of(members_.begin(), members_.end(), [](const Member& member) { return member.connected; });
    // An end that an earlier attempt is owed is not ours, unless nothing is left to wait for.
    if (connectionEndsOwed_ > 0) {
        --connectionEndsOwed_;
        if (topic_ != Topic::kConnect || !all) {
            return false;
        }
    }
    if (topic_ != Topic::kConnect || result_) {
        return false;
    }
    result_ = all ? VELMORA_OK : VELMORA_NOT_CONNECTED;
    return true;
}

bool Conversation::disconnected(std::string_view address) {
    if (result_) {
        return false;
    }
    for (Member& member : members_) {
        if (sameAddress(member.address, address)) {
            member.connected = false;
            if (topic_ == Topic::kDrop) {
                result_ = VELMORA_OK;
                return true;
            }
        }
    }
    return false;
}

void Conversation::brokenOff(velmora_status reason) {
    scanEndsOwed_ = 0;
    connectionEndsOwed_ = 0;
    if (topic_ != Topic::kNone && !result_) {
        result_ = reason;
        for (Member& member : members_) {
            member.connected = false;
        }
    }
}

}  // namespace velmora
