#include "core/frame_decoder.h"

#include <algorithm>
#include <array>

#include "base/log.h"
#include "protocol/headset_frames.h"

namespace kxorbeta_if {
namespace {

using namespace protocol;

constexpr std::size_t kLargestInterleaved = std::size_t{16} * kSamples;

// The two decoders read one grammar. What differs between them stands in these two sets of rules, side by side.

/// One headset's queue, filled from the dongle's envelopes.
struct DeviceRules {
    int device;

    /// Whether a lost multi-channel packet is made up by one interleaved packet. The two decoders take the merged
    /// layout in opposite senses: required; keep.
    static bool interleavedSubstitute(bool mergedChannels) { return !mergedChannels; }

    void logLoss(int channel, int loss, unsigned received, unsigned expected) const {
        KX_LOG(verbosity::kWarning, "[B]Lost data chan dev:%d chan:%d , num: %d packet_cnt: %d , %d", device, channel,
               loss, static_cast<int>(received), static_cast<int>(expected));
    }
    void logMultiLoss(int loss) const {
        KX_LOG(verbosity::kWarning, "[D]Lost data chan dev:%d  num: %d ", device, loss);
    }

    /// The callback gets a copy: the queue's bytes are not the callback's to change.
    void deliver(const ResponseEntry entry, void* context, const std::uint8_t* frame, std::size_t length) const {
        std::array<std::uint8_t, kLongResponseFrame> copy{};
        std::copy_n(frame, length, copy.begin());
        entry(context, device, frame[2], copy.data(), static_cast<int>(length));
    }
};

/// A block that comes straight from the line.
struct DirectRules {
    static constexpr int device = 0;
    std::uint8_t* block;  // the bytes that are decoded, modifiable

    static bool interleavedSubstitute(bool mergedChannels) { return mergedChannels; }

    static void logLoss(int channel, int loss, unsigned, unsigned) {
        KX_LOG(verbosity::kWarning, "[B]Lost data chan %d , %d ", channel, loss);
    }
    static void logMultiLoss(int loss) { KX_LOG(verbosity::kWarning, "[D]Lost data chan %d ", loss); }

    void deliver(const ResponseEntry entry, void* context, const std::uint8_t* frame, std::size_t length) const {
        entry(context, device, frame[2], block + (frame - block), static_cast<int>(length));
    }
};

/// How many packets are missing. Across the wrap of the counter 255 is added, not 256, so that a loss there reads one
/// less than it is: required; keep.
int missingPackets(unsigned received, unsigned expected) {
    const int difference = static_cast<int>(received) - static_cast<int>(expected);
    return expected > received ? difference + 255 : difference;
}

bool bridged(int loss) {
    return loss == 1 || loss == 2;
}

template <typename Rules>
class FrameParser {
  public:
    FrameParser(const DecoderTables& tables, const Rules& rules, std::span<const std::uint8_t> bytes)
        : tables_(tables), rules_(rules), bytes_(bytes) {}

    std::size_t run() const {
        const std::uint8_t* frame = bytes_.data();
        std::size_t left = bytes_.size();
        while (left >= kShortestFrame) {
            const std::size_t consumed = decodeOne(frame, left);
            if (consumed == kWait) {
                break;
            }
            frame += consumed;
            left -= consumed;
        }
        return bytes_.size() - left;
    }

  private:
    static constexpr std::size_t kWait = 0;  // the frame is not complete
    static constexpr std::size_t kSkip = 1;  // no frame begins here

    bool recording() const { return tables_.flags.recording.load(std::memory_order_relaxed); }
    bool merged() const { return tables_.flags.mergedChannels.load(std::memory_order_relaxed); }

    /// `left` bytes lie at `frame`, at least kShortestFrame. The number consumed, or kWait.
    std::size_t decodeOne(const std::uint8_t* frame, std::size_t left) const {
        switch (classify(frame, left)) {
            case FrameKind::kRaw:
                raw(frame);
                return kRawFrame;
            case FrameKind::kPost:
                post(frame);
                return kPostFrame;
            case FrameKind::kBattery:
                battery(frame);
                return kBatteryFrame;
            case FrameKind::kShortResponse:
                response(frame, kShortResponseFrame);
                return kShortResponseFrame;
            case FrameKind::kLongResponse:
                response(frame, kLongResponseFrame);
                return kLongResponseFrame;
            case FrameKind::kIncompleteRaw:
                KX_LOG(verbosity::kWarning, "Parse data error, not enough data. %d ", static_cast<int>(left));
                return kWait;
            case FrameKind::kIncompletePost:
            case FrameKind::kIncompleteResponse:
                return kWait;
            case FrameKind::kNoStart:
                break;
            case FrameKind::kInvalidChannel:
                KX_LOG(verbosity::kWarning, "Parse data error, channel invalid %x.", static_cast<unsigned>(frame[3]));
                break;
            case FrameKind::kNoChannels:
                KX_LOG(verbosity::kWarning, "Parse data error, channel is 0.");
                break;
            case FrameKind::kNoResponseStart:
                KX_LOG(verbosity::kWarning, "Parse data error, lost sync for command. length: %d ",
                       static_cast<int>(left));
                break;
            case FrameKind::kInvalidCheckByte:
                KX_LOG(verbosity::kWarning, "Response checksum error.");
                KX_LOG(verbosity::kWarning, "Parse data error, lost sync for command2. length: %d ",
                       static_cast<int>(left));
                break;
        }
        return kSkip;
    }

    void battery(const std::uint8_t* frame) const {
        if (recording()) {
            if (const BattInfoEntry entry = tables_.callbacks.battInfo.load()) {
                const BatteryFields fields = readBattery(frame);
                entry(context(), rules_.device, fields.level, fields.value);
            }
        }
    }

    void post(const std::uint8_t* frame) const {
        if (recording()) {
            if (const PostDataEntry entry = tables_.callbacks.postData.load()) {
                PostFields fields = readPost(frame);
                const auto& values = fields.values;
                // Post data carries device 0 whichever headset sent it: required; keep.
                entry(context(), 0, values[0], values[1], values[2], values[3], fields.bands.data());
            }
        }
    }

    void raw(const std::uint8_t* frame) const {
        const ChannelByte channel{frame[3]};
        if (channel.single()) {
            singleChannel(frame, channel.number());
        } else {
            multiChannel(frame, channel.number());
        }
    }

    /// The raw data entry while data is wanted, else null.
    RawDataEntry rawEntry() const { return recording() ? tables_.callbacks.rawData.load() : nullptr; }

    void singleChannel(const std::uint8_t* frame, int channel) const {
        const unsigned received = frame[kCounterOffset];
        const int device = rules_.device;
        PacketCounters& counters = tables_.packetCounters;
        const unsigned expected = counters.expected(device, channel);
        if (received != expected && expected != PacketCounters::kNoneSeen) [[unlikely]] {
            bridgeSingleChannel(channel, received, expected);
        }
        counters.received(device, channel, received);
        if (const RawDataEntry entry = rawEntry()) {
            std::array<int, kSamples> samples;
            convertSamples(frame, samples.data());
            entry(context(), device, channel, samples.data(), kSamples);
        }
    }

    [[gnu::cold, gnu::noinline]] void bridgeSingleChannel(int channel, unsigned received, unsigned expected) const {
        const int loss = missingPackets(received, expected);
        rules_.logLoss(channel, loss, received, expected);
        // Asked once: a callback that stops collection, or takes itself out, still gets what the loss is made up by.
        const RawDataEntry entry = bridged(loss) ? rawEntry() : nullptr;
        for (int lost = 0; entry != nullptr && lost < loss; ++lost) {
            std::array<int, kSamples> zeros{};
            entry(context(), rules_.device, channel, zeros.data(), kSamples);
        }
    }

    void multiChannel(const std::uint8_t* frame, int channels) const {
        const unsigned received = frame[kCounterOffset];
        const unsigned expected = tables_.packetCounters.expected(rules_.device, 0);
        if (expected == PacketCounters::kNoneSeen) {
            // Stores this packet's own counter, so the next one reports a loss of 1 and is preceded by one substitute:
            // the packet held back here is made up for. Required; keep.
            tables_.packetCounters.expect(rules_.device, 0, received);
            return;
        }
        if (received != expected) {
            const int loss = missingPackets(received, expected);
            rules_.logMultiLoss(loss);
            const RawDataEntry entry = bridged(loss) ? rawEntry() : nullptr;
            for (int lost = 0; entry != nullptr && lost < loss; ++lost) {
                substituteMultiChannel(entry, channels);
            }
        }
        tables_.packetCounters.received(rules_.device, 0, received);
        deliverMultiChannel(frame, channels);
    }

    void substituteMultiChannel(RawDataEntry entry, int channels) const {
        if (rules_.interleavedSubstitute(merged())) {
            // Announces 112 values a channel, more than a real interleaved packet holds. Required; keep.
            std::array<int, kLargestInterleaved> zeros{};
            entry(context(), rules_.device, -channels, zeros.data(), channels * kSamples);
            return;
        }
        for (int channel = 0; channel < channels; ++channel) {
            std::array<int, kSamples> zeros{};
            entry(context(), rules_.device, channel, zeros.data(), kSamples / channels);
        }
    }

    void deliverMultiChannel(const std::uint8_t* frame, int channels) const {
        const RawDataEntry entry = rawEntry();
        if (entry == nullptr) {
            return;
        }
        const int perChannel = kSamples / channels;
        std::array<int, kSamples> interleaved;
        convertSamples(frame, interleaved.data());
        if (merged()) {
            entry(context(), rules_.device, -channels, interleaved.data(), perChannel * channels);
            return;
        }
        for (int channel = 0; channel < channels; ++channel) {
            std::array<int, kSamples> samples;
            for (int i = 0; i < perChannel; ++i) {
                samples[static_cast<std::size_t>(i)] = interleaved[static_cast<std::size_t>(i * channels + channel)];
            }
            entry(context(), rules_.device, channel, samples.data(), perChannel);
        }
    }

    void response(const std::uint8_t* frame, std::size_t length) const {
        const SpinGuard guard(tables_.callbacks.responseLock);
        if (const ResponseEntry entry = tables_.callbacks.response.load()) {
            rules_.deliver(entry, context(), frame, length);
        }
    }

    void* context() const { return tables_.callbacks.context.load(); }

    // Held as copies: reached through one pointer less for every frame.
    const DecoderTables tables_;
    const Rules rules_;
    const std::span<const std::uint8_t> bytes_;
};

}  // namespace

std::size_t decodeDeviceFrames(const DecoderTables& tables, int device, std::span<const std::uint8_t> bytes) {
    const DeviceRules rules{device};
    return FrameParser<DeviceRules>(tables, rules, bytes).run();
}

std::size_t decodeDirectFrames(const DecoderTables& tables, std::span<std::uint8_t> bytes) {
    const DirectRules rules{bytes.data()};
    return FrameParser<DirectRules>(tables, rules, bytes).run();
}

}  // namespace kxorbeta_if
