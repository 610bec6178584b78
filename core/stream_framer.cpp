#include "core/stream_framer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "core/frame_decoder.h"
#include "core/log.h"
#include "core/text.h"

namespace kxorbeta_if {
namespace {

constexpr std::string_view kMarker = "AT+DAT";
constexpr std::size_t kShortestFrame = 10;  // marker, two one-digit numbers, ':' and '#'
constexpr std::size_t kFarthestMark = 16;   // '#' counted from the frame's first byte
constexpr std::size_t kSkippedForLog = 128;

int asInt(std::size_t count) {
    return static_cast<int>(count);
}

struct Header {
    std::size_t length = 0;  // up to and with the '#'
    int device = 0;
    std::size_t payload = 0;
};

/// Bytes that were passed over since the last frame, for one record of them all. An object of its own, so that the walk
/// itself can live in registers.
class SkippedBytes {
  public:
    explicit SkippedBytes(bool rawDump) : rawDump_(rawDump) {}

    void add(std::span<const std::uint8_t> bytes) {
        if (rawDump_ && count_ < kSkippedForLog) {
            std::copy_n(bytes.begin(), std::min(bytes.size(), kSkippedForLog - count_), first_.begin() + count_);
        }
        count_ += bytes.size();
    }

    [[gnu::cold, gnu::noinline]] void report() {
        if (count_ == 0) {
            return;
        }
        KX_LOG(verbosity::kWarning, "Parse sync word lost %d.", asInt(count_));
        if (rawDump_) {
            KX_LOG(verbosity::kInfo, "Lost Data: %s",
                   hexText(std::span(first_).first(std::min(count_, kSkippedForLog))).c_str());
        }
        count_ = 0;
    }

  private:
    const bool rawDump_;
    std::size_t count_ = 0;
    std::array<std::uint8_t, kSkippedForLog> first_;
};

/// One walk over one block.
class BlockWalk {
  public:
    BlockWalk(std::span<const std::uint8_t> block, ReceiveTables& tables, const DecoderTables& decoder, bool rawDump,
              SkippedBytes& skipped, History& history)
        : block_(block), tables_(tables), decoder_(decoder), rawDump_(rawDump), skipped_(skipped), history_(history) {}

    void run() {
        while (left() >= kShortestFrame) {
            Header header;
            if (!readPlainHeader(header)) [[unlikely]] {
                if (!findFrame(header)) {
                    return;
                }
                skipped_.report();
            }
            KX_LOG(verbosity::kTraffic, "Parse info, header_length =%d, frame_len = %d payload_len = %d  length = %d.",
                   asInt(header.length), asInt(header.payload), asInt(left() - header.length), asInt(left()));
            if (left() - header.length < header.payload) {
                KX_LOG(verbosity::kWaiting,
                       "Not enough data,wait next read. header_length =%d, frame_len = %d payload_len = %d  length = "
                       "%d.",
                       asInt(header.length), asInt(header.payload), asInt(left() - header.length), asInt(left()));
                tables_.syncErrorState = ReceiveTables::kWaitedForData;
                history_.keep(rest());
                return;
            }
            if (rawDump_ && tables_.syncErrorState == ReceiveTables::kWaitedForData) {
                KX_LOG(verbosity::kTraffic, "Parse error 5 was fixed, length: %d.", asInt(left()));
                KX_LOG(verbosity::kInfo, "Check Data: %s", hexText(rest()).c_str());
            }
            tables_.syncErrorState = 0;
            take(header);
            position_ += header.length + header.payload;
            if (left() == 0) {
                return;
            }
        }
        history_.keep(rest());
    }

  private:
    std::size_t left() const { return block_.size() - position_; }
    std::span<const std::uint8_t> rest() const { return block_.subspan(position_); }
    bool markerAt(std::size_t place) const {
        return std::memcmp(block_.data() + place, kMarker.data(), kMarker.size()) == 0;
    }

    /// Moves to the next frame with a sound header that readPlainHeader() does not read, or that has bytes without a
    /// frame before it. False when the block ended first; its rest is then dealt with.
    bool findFrame(Header& header) {
        bool lostSync = true;  // what the last failed attempt was: no marker, or a marker with a bad header
        while (left() >= kShortestFrame) {
            if (!markerAt(position_)) {
                skipToMarker();
                lostSync = true;
                continue;
            }
            const std::size_t mark = findMark();
            if (mark == block_.size()) {
                KX_LOG(verbosity::kWarning, "Parse data error, no # mark.");
                history_.clear();
                return false;
            }
            if (mark - position_ > kFarthestMark) {
                KX_LOG(verbosity::kWarning, "Parse data error, sync lost 3.");
                ++position_;
                continue;
            }
            lostSync = false;
            if (readHeader(mark, header)) {
                return true;
            }
            ++position_;
        }
        if (lostSync) {
            KX_LOG(verbosity::kWarning, "Parse data error, %d left.", asInt(left()));
        } else {
            KX_LOG(verbosity::kInfo, "No payload, Left data. %d", asInt(left()));
        }
        history_.keep(rest());
        return false;
    }

    /// The header as a sound dongle writes it, digits on both sides of the ':'; false for any other, sound or not, and
    /// at the block's end, which findFrame() then reads in full. Nearly every frame comes this way.
    bool readPlainHeader(Header& header) const {
        if (left() <= kFarthestMark || !markerAt(position_)) {
            return false;
        }
        const std::uint8_t* const start = block_.data() + position_;
        const std::uint8_t* const last = start + kFarthestMark;
        const std::uint8_t* next = start + kMarker.size();
        // At most ten digits stand before the farthest mark, nine of them beside a ':', so nothing overflows.
        const auto number = [&] {
            std::uint32_t value = 0;
            for (; next < last && *next >= '0' && *next <= '9'; ++next) {
                value = value * 10 + (*next - std::uint32_t{'0'});
            }
            return value;
        };
        const std::uint32_t device = number();
        if (*next++ != ':') {
            return false;
        }
        const std::uint32_t payload = number();
        if (next > last || *next != '#') {
            return false;
        }
        header = {static_cast<std::size_t>(next + 1 - start), static_cast<int>(device), payload};
        return true;
    }

    /// Passes over bytes that begin no frame: at least one, and on to the next marker or the block's end.
    void skipToMarker() {
        if (tables_.syncErrorState == ReceiveTables::kWaitedForData) {
            tables_.syncErrorState = 0;
            KX_LOG(verbosity::kWarning, "Parse sync error was not fixed.");
        }
        const std::size_t end = block_.size() - kShortestFrame + 1;  // a frame cannot begin here or later
        // Byte by byte: a search call for each candidate is what a flood of first letters would make dear.
        std::size_t to = position_ + 1;
        while (to < end && !markerAt(to)) {
            ++to;
        }
        skipped_.add(block_.subspan(position_, to - position_));
        position_ = to;
    }

    /// The next '#' at or after the position, or the block's end when a zero byte or the end comes first. The answer is
    /// kept while it lies ahead: a flood of markers before one far '#' must not search the same bytes again.
    std::size_t findMark() {
        if (markStop_ < position_ || !markKnown_) {
            markStop_ = position_;
            while (markStop_ < block_.size() && block_[markStop_] != '#' && block_[markStop_] != 0) {
                ++markStop_;
            }
            markKnown_ = true;
        }
        return markStop_ < block_.size() && block_[markStop_] == '#' ? markStop_ : block_.size();
    }

    bool readHeader(std::size_t mark, Header& header) const {
        const std::string_view text =
            asText(block_.subspan(position_ + kMarker.size(), mark - position_ - kMarker.size()));
        const std::size_t colon = text.find(':');
        if (colon == std::string_view::npos) {
            KX_LOG(verbosity::kWarning, "Parse data error, convert frame len failed2.");
            return false;
        }
        // Text that is not a number counts as 0; ten characters cannot exceed 32 bits.
        const int payload = leadingNumber(text.substr(colon + 1)).value_or(0);
        if (payload < 0) {
            KX_LOG(verbosity::kWarning, "Parse data error, convert frame len failed.");
            return false;
        }
        header.length = mark + 1 - position_;
        header.device = leadingNumber(text.substr(0, colon)).value_or(0);
        header.payload = static_cast<std::size_t>(payload);
        return true;
    }

    void take(const Header& header) {
        tables_.deviceStreams.emptyIfRequested();
        if (header.device < 0 || header.device >= kDeviceSlots) {
            return;  // no headset has that number; the frame is passed over whole
        }
        const auto payload = block_.subspan(position_ + header.length, header.payload);
        if (rawDump_) {
            KX_LOG(verbosity::kTraffic, "Frame%d:%s", header.device, hexText(payload).c_str());
        }
        ByteQueue& queue = tables_.deviceStreams[header.device];
        if (queue.empty()) {
            // A payload of whole frames, the usual case, is decoded where it lies.
            const std::size_t consumed = decodeDeviceFrames(decoder_, header.device, payload);
            if (consumed < payload.size()) {
                queue.append(payload.subspan(consumed));
            }
        } else {
            queue.append(payload);
            queue.dropFront(decodeDeviceFrames(decoder_, header.device, queue.bytes()));
        }
    }

    std::span<const std::uint8_t> block_;
    ReceiveTables& tables_;
    const DecoderTables& decoder_;
    const bool rawDump_;
    SkippedBytes& skipped_;
    History& history_;

    std::size_t position_ = 0;
    std::size_t markStop_ = 0;
    bool markKnown_ = false;
};

}  // namespace

void StreamFramer::parseFramed(std::span<const std::uint8_t> block, History& history) {
    const bool rawDump = flags_.rawDump;
    if (rawDump) {
        KX_LOG(verbosity::kTraffic, "ParseData:%s", hexText(block).c_str());
    }
    const DecoderTables decoder{callbacks_, tables_.packetCounters, flags_};
    SkippedBytes skipped(rawDump);
    BlockWalk(block, tables_, decoder, rawDump, skipped, history).run();
}

void StreamFramer::parseDirect(std::span<std::uint8_t> block, History& history) {
    const DecoderTables decoder{callbacks_, tables_.packetCounters, flags_};
    history.keep(block.subspan(decodeDirectFrames(decoder, block)));
}

void StreamFramer::parse(std::span<std::uint8_t> block, History& history) {
    if (block.empty()) {
        history.clear();
    } else if (flags_.ctlFraming) {
        parseFramed(block, history);
    } else {
        parseDirect(block, history);
    }
}

}  // namespace kxorbeta_if
