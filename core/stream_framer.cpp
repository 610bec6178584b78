#include "core/stream_framer.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "base/log.h"
#include "base/text.h"
#include "core/frame_decoder.h"
#include "protocol/data_header.h"

namespace kxorbeta_if {
namespace {

using protocol::DataHeader;
using protocol::kFarthestDelimiter;
using protocol::kShortestDataFrame;
using protocol::kSyncWord;

constexpr std::size_t kSkippedForLog = 128;

int asInt(std::size_t count) {
    return static_cast<int>(count);
}

/// Bytes that were skipped since the last frame, for one record of them all. An object of its own, so that the walk
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
        while (left() >= kShortestDataFrame) {
            DataHeader header;
            // Digits on both sides of the ':', and not too near the block's end: nearly every frame comes this way.
            if (left() < protocol::kLongestHeader || !protocol::readPlainHeader(block_.data() + position_, header))
                [[unlikely]] {
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
    bool syncWordAt(std::size_t place) const { return protocol::isSyncWord(block_.data() + place); }

    /// Moves to the next frame with a valid header that is not plain, or that has bytes without a frame before it.
    /// False when the block ended first; its rest is then dealt with.
    bool findFrame(DataHeader& header) {
        bool lostSync = true;  // what the last failed attempt was: no sync word, or a sync word with a bad header
        while (left() >= kShortestDataFrame) {
            if (!syncWordAt(position_)) {
                skipToSyncWord();
                lostSync = true;
                continue;
            }
            const std::size_t delimiter = findDelimiter();
            if (delimiter == block_.size()) {
                KX_LOG(verbosity::kWarning, "Parse data error, no # mark.");
                history_.clear();
                return false;
            }
            if (delimiter - position_ > kFarthestDelimiter) {
                KX_LOG(verbosity::kWarning, "Parse data error, sync lost 3.");
                ++position_;
                continue;
            }
            lostSync = false;
            if (readHeader(delimiter, header)) {
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

    /// Skips bytes that begin no frame: at least one, and on to the next sync word or the block's end.
    void skipToSyncWord() {
        if (tables_.syncErrorState == ReceiveTables::kWaitedForData) {
            tables_.syncErrorState = 0;
            KX_LOG(verbosity::kWarning, "Parse sync error was not fixed.");
        }
        const std::size_t end = block_.size() - kShortestDataFrame + 1;  // a frame cannot begin here or later
        // Byte by byte: a search call for each candidate is what a flood of first letters would make expensive.
        std::size_t to = position_ + 1;
        while (to < end && !syncWordAt(to)) {
            ++to;
        }
        skipped_.add(block_.subspan(position_, to - position_));
        position_ = to;
    }

    /// The next '#' at or after the position, or the block's end when a zero byte or the end comes first. The answer is
    /// kept while it lies ahead: a flood of sync words before one far '#' must not search the same bytes again.
    std::size_t findDelimiter() {
        if (delimiterStop_ < position_ || !delimiterKnown_) {
            delimiterStop_ = position_;
            while (delimiterStop_ < block_.size() && block_[delimiterStop_] != '#' && block_[delimiterStop_] != 0) {
                ++delimiterStop_;
            }
            delimiterKnown_ = true;
        }
        return delimiterStop_ < block_.size() && block_[delimiterStop_] == '#' ? delimiterStop_ : block_.size();
    }

    bool readHeader(std::size_t delimiter, DataHeader& header) const {
        const std::string_view text =
            asText(block_.subspan(position_ + kSyncWord.size(), delimiter - position_ - kSyncWord.size()));
        switch (protocol::readHeaderText(text, header)) {
            case protocol::HeaderText::kNoColon:
                KX_LOG(verbosity::kWarning, "Parse data error, convert frame len failed2.");
                return false;
            case protocol::HeaderText::kNegativeLength:
                KX_LOG(verbosity::kWarning, "Parse data error, convert frame len failed.");
                return false;
            case protocol::HeaderText::kRead:
                break;
        }
        return true;
    }

    void take(const DataHeader& header) {
        tables_.deviceStreams.emptyIfRequested();
        if (header.device < 0 || header.device >= protocol::kHeadsets) {
            return;  // no headset has that number; the frame is skipped whole
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
    std::size_t delimiterStop_ = 0;
    bool delimiterKnown_ = false;
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
