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

DataLine::DataLine(const LineSettings& line, const FaultSettings& faults)
    : line_(line), faults_(faults), chance_(faults.seed) {}

void DataLine::push(HeadsetFrame frame, Headset& sender) {
    HeadsetCounters& counters = sender.counters();
    int copies = 1;
    if (frame.kind == FrameKind::Raw) {
        const bool nth = faults_.loseEvery > 0 && counters.rawProduced % faults_.loseEvery == 0;
        if (nth || chance_.hits(faults_.lose)) {
            ++counters.rawLost;
            return;
        }
        if (chance_.hits(faults_.repeat)) {
            ++counters.rawRepeated;
            copies = 2;
        }
    }
    Waiting item{&sender, frame.kind, dataEnvelope(sender.settings().index, frame.bytes)};
    if (waitingBytes_ + item.bytes.size() * static_cast<std::size_t>(copies) > kMostWaiting) {
        if (frame.kind == FrameKind::Raw)
            ++counters.rawDropped;
        return;
    }
    for (; copies > 0; --copies) {
        waitingBytes_ += item.bytes.size();
        waiting_.push_back(item);
    }
}

void DataLine::pushText(std::string_view text) {
    waitingBytes_ += text.size();
    waiting_.push_back({nullptr, FrameKind::Raw, Bytes(text.begin(), text.end())});
}

void DataLine::forget(const Headset& sender) {
    std::erase_if(waiting_, [&](const Waiting& item) {
        if (item.sender != &sender)
            return false;
        if (item.kind == FrameKind::Raw)
            ++item.sender->counters().rawDropped;
        waitingBytes_ -= item.bytes.size();
        return true;
    });
}

void DataLine::clear() {
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

    Bytes burst;
    while (!waiting_.empty() && static_cast<double>(waiting_.front().bytes.size()) <= allowance_) {
        Waiting item = std::move(waiting_.front());
        waiting_.pop_front();
        waitingBytes_ -= item.bytes.size();
        allowance_ -= static_cast<double>(item.bytes.size());
        append(item, burst, writes);
    }
    if (!burst.empty())
        writes.push_back({std::move(burst), dataGap()});
}

void DataLine::append(Waiting& item, Bytes& burst, std::vector<Write>& writes) {
    if (item.sender == nullptr) {
        counters_.textBytes += item.bytes.size();
    } else {
        HeadsetCounters& counters = item.sender->counters();
        const bool raw = item.kind == FrameKind::Raw;
        if (raw)
            ++counters.rawSent;
        if (item.kind == FrameKind::Battery)
            ++counters.battery;
        if (item.kind == FrameKind::Post)
            ++counters.post;
        if (item.kind == FrameKind::Response)
            ++counters.responses;
        counters_.dataBytes += item.bytes.size();
        if (chance_.hits(faults_.stray)) {
            const std::size_t count = 1 + chance_.below(faults_.strayMost);
            for (std::size_t i = 0; i < count; ++i)
                burst.push_back(static_cast<std::uint8_t>(chance_.below(256)));
            counters_.strayBytes += count;
        }
        if (chance_.hits(faults_.corrupt)) {
            // Never 0, or the byte would come out right.
            item.bytes[chance_.below(item.bytes.size())] ^= static_cast<std::uint8_t>(1 + chance_.below(255));
            if (raw)
                ++counters.rawCorrupted;
        }
    }
    auto from = item.bytes.begin();
    if (item.bytes.size() > 1 && chance_.hits(faults_.split)) {
        const auto cut = from + static_cast<std::ptrdiff_t>(1 + chance_.below(item.bytes.size() - 1));
        burst.insert(burst.end(), from, cut);
        writes.push_back({std::exchange(burst, {}), dataGap()});
        from = cut;
    }
    burst.insert(burst.end(), from, item.bytes.end());
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
