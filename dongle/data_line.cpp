#include "dongle/data_line.h"

#include <algorithm>
#include <utility>

namespace dongle {

namespace {

// What a dongle can keep while the line is busy: about a third of a second at full rate.
constexpr std::size_t kMostWaiting = 65'536;

double seconds(Time time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

DataLine::DataLine(const LineSettings& line, const FaultSettings& faults, Account* account)
    : line_(line), faults_(faults), account_(account), chance_(faults.seed) {}

std::uint64_t DataLine::enter(const HeadsetFrame& frame, const Headset& sender, Time now) {
    if (account_ == nullptr || frame.kind != FrameKind::Raw) {
        return Account::kNone;
    }
    return account_->produced(sender.place(), sender.settings().index, frame, sender.counters().rawProduced - 1, now);
}

void DataLine::discard(const HeadsetFrame& frame, Headset& sender, Time now) {
    if (frame.kind != FrameKind::Raw) {
        return;
    }
    ++sender.counters().rawDropped;
    if (const auto packet = enter(frame, sender, now); packet != Account::kNone) {
        account_->dropped(packet, 0, DropCause::Silent);
    }
}

void DataLine::push(HeadsetFrame frame, Headset& sender, Time now) {
    HeadsetCounters& counters = sender.counters();
    const std::uint64_t packet = enter(frame, sender, now);
    std::size_t copies = 1;
    if (frame.kind == FrameKind::Raw) {
        const bool nth = faults_.loseEvery > 0 && counters.rawProduced % faults_.loseEvery == 0;
        if (nth || chance_.hits(faults_.lose)) {
            ++counters.rawLost;
            if (packet != Account::kNone) {
                account_->lost(packet);
            }
            return;
        }
        if (chance_.hits(faults_.repeat)) {
            ++counters.rawRepeated;
            copies = 2;
        }
    }
    Waiting item{&sender, frame.kind, dataEnvelope(sender.settings().index, frame.bytes), packet};
    if (waitingBytes_ + item.bytes.size() * copies > kMostWaiting) {
        drop(item, DropCause::QueueFull);
        return;
    }
    if (packet != Account::kNone) {
        account_->queued(packet, item.bytes.size(), copies);
    }
    for (item.copy = 0; item.copy < copies; ++item.copy) {
        waitingBytes_ += item.bytes.size();
        waiting_.push_back(item);
    }
}

void DataLine::drop(const Waiting& item, DropCause cause) {
    if (item.sender == nullptr || item.kind != FrameKind::Raw) {
        return;
    }
    // A copy is no packet of its own.
    if (item.copy == 0) {
        ++item.sender->counters().rawDropped;
    }
    if (item.packet != Account::kNone) {
        account_->dropped(item.packet, item.copy, cause);
    }
}

void DataLine::pushText(std::string_view text) {
    waitingBytes_ += text.size();
    Waiting item;
    item.bytes.assign(text.begin(), text.end());
    waiting_.push_back(std::move(item));
}

void DataLine::forget(const Headset& sender) {
    std::erase_if(waiting_, [&](const Waiting& item) {
        if (item.sender != &sender) {
            return false;
        }
        drop(item, DropCause::Gone);
        waitingBytes_ -= item.bytes.size();
        return true;
    });
}

void DataLine::clear() {
    for (const Waiting& item : waiting_) {
        drop(item, DropCause::Gone);
    }
    waiting_.clear();
    waitingBytes_ = 0;
}

double DataLine::allowance(Time now) const {
    const auto most = static_cast<double>(line_.largestBurst);
    const std::uint32_t rate = line_.fillBytesPerSecond > 0 ? line_.fillBytesPerSecond : line_.bytesPerSecond;
    // Time in which nothing waited is no credit beyond one burst.
    return rate == 0 ? most : std::min(most, allowance_ + rate * seconds(now - lastFlush_));
}

std::size_t DataLine::room(Time now) const {
    const auto carried = static_cast<std::size_t>(allowance(now));
    return carried > waitingBytes_ ? carried - waitingBytes_ : 0;
}

void DataLine::flush(Time now, std::vector<Write>& writes) {
    allowance_ = allowance(now);
    lastFlush_ = now;

    Write burst{{}, dataGap()};
    while (!waiting_.empty() && static_cast<double>(waiting_.front().bytes.size()) <= allowance_) {
        Waiting item = std::move(waiting_.front());
        waiting_.pop_front();
        waitingBytes_ -= item.bytes.size();
        allowance_ -= static_cast<double>(item.bytes.size());
        append(item, now, burst, writes);
    }
    if (!burst.bytes.empty()) {
        writes.push_back(std::move(burst));
    }
}

void DataLine::damage(Waiting& item, Time now) {
    const std::size_t at = chance_.below(item.bytes.size());
    // Never 0, or the byte would come out right.
    const auto wrong = static_cast<std::uint8_t>(1 + chance_.below(255));
    if (item.kind == FrameKind::Raw && item.sender != nullptr) {
        ++item.sender->counters().rawCorrupted;
    }
    if (account_ != nullptr) {
        if (item.packet == Account::kNone) {
            const HeadsetFrame frame{item.kind, item.bytes};
            item.packet = account_->produced(item.sender->place(), item.sender->settings().index, frame, 0, now);
            account_->queued(item.packet, item.bytes.size(), 1);
        }
        account_->damaged(item.packet, item.copy, at, partAt(item.bytes, item.kind, at));
    }
    item.bytes[at] ^= wrong;
}

void DataLine::append(Waiting& item, Time now, Write& burst, std::vector<Write>& writes) {
    if (item.sender == nullptr) {
        counters_.textBytes += item.bytes.size();
    } else {
        HeadsetCounters& counters = item.sender->counters();
        const bool raw = item.kind == FrameKind::Raw;
        if (raw && item.copy == 0) {
            ++counters.rawSent;
        }
        if (item.kind == FrameKind::Battery) {
            ++counters.battery;
        }
        if (item.kind == FrameKind::Post) {
            ++counters.post;
        }
        if (item.kind == FrameKind::Response) {
            ++counters.responses;
        }
        counters_.dataBytes += item.bytes.size();
        if (chance_.hits(faults_.stray)) {
            const std::size_t count = 1 + chance_.below(faults_.strayMost);
            for (std::size_t i = 0; i < count; ++i) {
                burst.bytes.push_back(static_cast<std::uint8_t>(chance_.below(256)));
            }
            counters_.strayBytes += count;
        }
        if (chance_.hits(faults_.corrupt)) {
            damage(item, now);
        }
    }
    const auto put = [&](std::size_t from, std::size_t to) {
        if (item.packet != Account::kNone) {
            burst.pieces.push_back({item.packet, item.copy, burst.bytes.size(), to - from});
        }
        burst.bytes.insert(burst.bytes.end(), item.bytes.begin() + static_cast<std::ptrdiff_t>(from),
                           item.bytes.begin() + static_cast<std::ptrdiff_t>(to));
    };
    std::size_t from = 0;
    if (item.bytes.size() > 1 && chance_.hits(faults_.split)) {
        from = 1 + chance_.below(item.bytes.size() - 1);
        put(0, from);
        writes.push_back(std::exchange(burst, Write{{}, dataGap()}));
    }
    put(from, item.bytes.size());
}

void DataLine::writeText(std::string_view text, std::vector<Write>& writes) {
    counters_.textBytes += text.size();
    for (std::size_t piece = 0; !text.empty(); ++piece) {
        std::size_t size = text.size();
        if (line_.textCutsRandom) {
            size = 1 + chance_.below(text.size());
        } else if (piece < line_.textCuts.size()) {
            size = std::clamp<std::size_t>(line_.textCuts[piece], 1, text.size());
        }
        const std::string_view part = text.substr(0, size);
        writes.push_back({Bytes(part.begin(), part.end()), line_.gaps ? line_.textGap : Time{0}});
        text.remove_prefix(size);
    }
}

}  // namespace dongle
