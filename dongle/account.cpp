#include "dongle/account.h"

#include <algorithm>

namespace dongle {

namespace {

constexpr std::size_t kChannelByte = 3;
constexpr std::size_t kCounterByte = 228;
// More than any line keeps for a host that does not read: a pseudo-terminal takes some 18,000 bytes.
constexpr std::uint64_t kMostUnread = 1'048'576;

}  // namespace

const char* nameOf(Outcome outcome) {
    constexpr std::array names{"waiting", "lost", "dropped", "unread", "damaged", "whole"};
    return names[static_cast<std::size_t>(outcome)];
}

const char* nameOf(DropCause cause) {
    constexpr std::array names{"", "queue full", "line full", "no host", "silent", "gone"};
    return names[static_cast<std::size_t>(cause)];
}

const char* nameOf(FramePart part) {
    constexpr std::array names{"",     "marker",  "index",  "separator", "length", "sync",
                               "kind", "channel", "sample", "counter",   "unused", "content"};
    return names[static_cast<std::size_t>(part)];
}

const char* nameOf(FrameKind kind) {
    constexpr std::array names{"raw", "battery", "post", "response"};
    return names[static_cast<std::size_t>(kind)];
}

FramePart partAt(std::span<const std::uint8_t> envelope, FrameKind kind, std::size_t at) {
    constexpr std::size_t kMarkerSize = 6;
    const auto placeOf = [&](char sign) {
        return static_cast<std::size_t>(std::find(envelope.begin(), envelope.end(), sign) - envelope.begin());
    };
    const std::size_t colon = placeOf(':');
    const std::size_t mark = placeOf('#');
    if (at < kMarkerSize) {
        return FramePart::Marker;
    }
    if (at == colon || at == mark) {
        return FramePart::Separator;
    }
    if (at < mark) {
        return at < colon ? FramePart::Index : FramePart::Length;
    }
    const std::size_t inFrame = at - mark - 1;
    if (inFrame < 2) {
        return FramePart::Sync;
    }
    // A response has its code where the other frames have their kind.
    if (inFrame == 2 && kind != FrameKind::Response) {
        return FramePart::Kind;
    }
    if (kind != FrameKind::Raw) {
        return FramePart::Content;
    }
    if (inFrame == kChannelByte) {
        return FramePart::Channel;
    }
    if (inFrame == kCounterByte) {
        return FramePart::Counter;
    }
    return inFrame < kCounterByte ? FramePart::Sample : FramePart::Unused;
}

// ---- one packet

Outcome PacketRecord::outcomeOf(std::size_t copy) const {
    const Transmission& one = sent[copy];
    if (one.cause != DropCause::None) {
        return Outcome::Dropped;
    }
    if (one.taken < size) {
        return Outcome::Waiting;
    }
    if (one.unread > 0) {
        return Outcome::Unread;
    }
    return one.damagedByte ? Outcome::Damaged : Outcome::Whole;
}

Outcome PacketRecord::outcome() const {
    if (lost) {
        return Outcome::Lost;
    }
    Outcome best = Outcome::Waiting;
    for (std::size_t copy = 0; copy < copies; ++copy) {
        const Outcome one = outcomeOf(copy);
        if (one == Outcome::Waiting) {
            return one;
        }
        best = std::max(best, one);
    }
    return best;
}

// ---- totals

PacketTotals& PacketTotals::operator+=(const PacketTotals& other) {
    for (const auto member :
         {&PacketTotals::produced, &PacketTotals::waiting, &PacketTotals::lost, &PacketTotals::dropped,
          &PacketTotals::sent, &PacketTotals::unread, &PacketTotals::damaged, &PacketTotals::whole,
          &PacketTotals::repeated, &PacketTotals::otherDamaged}) {
        this->*member += other.*member;
    }
    return *this;
}

void Account::count(const PacketRecord& record, PacketTotals& totals) {
    if (record.kind != FrameKind::Raw) {
        ++totals.otherDamaged;
        return;
    }
    const Outcome outcome = record.outcome();
    const bool sent = outcome >= Outcome::Unread;
    totals.produced += 1;
    totals.waiting += outcome == Outcome::Waiting ? 1 : 0;
    totals.lost += outcome == Outcome::Lost ? 1 : 0;
    totals.dropped += outcome == Outcome::Dropped ? 1 : 0;
    totals.sent += sent ? 1 : 0;
    totals.unread += outcome == Outcome::Unread ? 1 : 0;
    totals.damaged += outcome == Outcome::Damaged ? 1 : 0;
    totals.whole += outcome == Outcome::Whole ? 1 : 0;
    totals.repeated += sent && record.copies == 2 && record.outcomeOf(1) >= Outcome::Unread ? 1 : 0;
}

std::map<Account::Key, PacketTotals> Account::totals() const {
    auto all = totals_;
    for (const PacketRecord& record : records_) {
        count(record, all[{record.headset, record.channel}]);
    }
    return all;
}

PacketTotals Account::sum() const {
    PacketTotals all;
    for (const auto& [key, some] : totals()) {
        all += some;
    }
    return all;
}

// ---- what happens to packets

std::uint64_t Account::produced(std::size_t headset, int index, const HeadsetFrame& frame, std::uint64_t number,
                                Time now) {
    PacketRecord record;
    record.headset = headset;
    record.index = index;
    record.kind = frame.kind;
    record.channel = kAllChannels;
    record.produced = now;
    if (frame.kind == FrameKind::Raw) {
        record.number = number;
        record.counter = frame.bytes[kCounterByte];
        if ((frame.bytes[kChannelByte] & 0x80U) != 0) {
            record.channel = frame.bytes[kChannelByte] & 0x0F;
        }
    }
    records_.push_back(record);
    return first_ + records_.size() - 1;
}

void Account::lost(std::uint64_t packet) {
    at(packet).lost = true;
    settle();
}

void Account::queued(std::uint64_t packet, std::size_t size, std::size_t copies) {
    at(packet).size = size;
    at(packet).copies = copies;
}

void Account::dropped(std::uint64_t packet, std::size_t copy, DropCause cause) {
    PacketRecord& record = at(packet);
    record.copies = std::max(record.copies, copy + 1);
    record.sent[copy].cause = cause;
    record.sent[copy].dropped = record.size;
    settle();
}

void Account::damaged(std::uint64_t packet, std::size_t copy, std::size_t byte, FramePart part) {
    at(packet).sent[copy].damagedByte = byte;
    at(packet).sent[copy].damagedPart = part;
}

void Account::taken(std::span<const Piece> pieces, std::size_t from, std::size_t to, std::uint64_t position, Time now) {
    for (const Piece& piece : pieces) {
        const std::size_t begin = std::max(from, piece.at);
        const std::size_t end = std::min(to, piece.at + piece.size);
        if (begin >= end) {
            continue;
        }
        Transmission& one = at(piece.packet).sent[piece.copy];
        one.taken += end - begin;
        one.end = position + (end - from);
        one.sent = now;
    }
    position_ = position + (to - from);
    decided_ = std::max(decided_, position_ - std::min(position_, kMostUnread));
    settle();
}

void Account::dropped(std::span<const Piece> pieces, std::size_t from, DropCause cause) {
    for (const Piece& piece : pieces) {
        const std::size_t end = piece.at + piece.size;
        if (end <= from) {
            continue;
        }
        Transmission& one = at(piece.packet).sent[piece.copy];
        one.cause = cause;
        one.dropped += end - std::max(from, piece.at);
    }
    settle();
}

void Account::portWent(std::uint64_t position, std::uint64_t count) {
    const std::uint64_t read = position - std::min(position, count);
    for (PacketRecord& record : records_) {
        for (std::size_t copy = 0; copy < record.copies; ++copy) {
            Transmission& one = record.sent[copy];
            if (one.end > std::max(read, decided_)) {
                one.unread = static_cast<std::size_t>(std::min<std::uint64_t>(one.taken, one.end - read));
            }
        }
    }
    position_ = decided_ = position;
    settle();
}

bool Account::settledBy(const PacketRecord& record) const {
    for (std::size_t copy = 0; copy < record.copies; ++copy) {
        const Transmission& one = record.sent[copy];
        // A packet in two writes can be dropped with the first and still have bytes in the second.
        if (one.taken + one.dropped < record.size || one.end > decided_) {
            return false;
        }
    }
    return record.lost || record.copies > 0;
}

void Account::settle() {
    while (!records_.empty() && settledBy(records_.front())) {
        const PacketRecord& record = records_.front();
        count(record, totals_[{record.headset, record.channel}]);
        if (settled_) {
            settled_(record);
        }
        records_.pop_front();
        ++first_;
    }
}

// ---- the file

std::string accountTitle() {
    return "headset,index,kind,number,channel,counter,produced_ns,copy,sent_ns,outcome,cause,damaged_byte,damaged_part,"
           "bytes,taken,unread\n";
}

std::string accountLines(const PacketRecord& record, const std::string& address) {
    const bool raw = record.kind == FrameKind::Raw;
    const std::string head = address + "," + std::to_string(record.index) + "," + nameOf(record.kind) + "," +
                             (raw ? std::to_string(record.number) : "") + "," +
                             (record.channel != kAllChannels ? std::to_string(record.channel)
                              : raw                          ? "all"
                                                             : "") +
                             "," + (raw ? std::to_string(record.counter) : "") + "," +
                             std::to_string(record.produced.count()) + ",";
    if (record.lost) {
        return head + "0,," + nameOf(Outcome::Lost) + ",,,,0,0,0\n";
    }
    std::string lines;
    for (std::size_t copy = 0; copy < record.copies; ++copy) {
        const Transmission& one = record.sent[copy];
        lines += head + std::to_string(copy + 1) + "," + (one.taken > 0 ? std::to_string(one.sent.count()) : "") + "," +
                 nameOf(record.outcomeOf(copy)) + "," + nameOf(one.cause) + "," +
                 (one.damagedByte ? std::to_string(*one.damagedByte) : "") + "," + nameOf(one.damagedPart) + "," +
                 std::to_string(record.size) + "," + std::to_string(one.taken) + "," + std::to_string(one.unread) +
                 "\n";
    }
    return lines;
}

}  // namespace dongle
