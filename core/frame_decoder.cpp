#include "core/frame_decoder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "core/headset_protocol.h"
#include "core/log.h"

namespace kxorbeta_if {
namespace {

using namespace headset;

static_assert(kShortResponse == 8 && kLongResponse == 16, "responses are summed eight bytes at a time");

// The two decoders read one grammar. What differs between them stands in these two sets of rules, side by side.

/// One headset's queue, filled from the dongle's envelopes.
struct DeviceRules {
    int device;

    /// Whether a lost multi-channel packet is made up by one interleaved packet. The two decoders take the merged
    /// layout in opposite senses; hosts rely on what each of them does.
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
        std::array<std::uint8_t, kLongResponse> copy{};
        std::copy_n(frame, length, copy.begin());
        entry(context, device, frame[2], copy.data(), static_cast<int>(length));
    }
};

/// A block that comes straight from the line.
struct DirectRules {
    static constexpr int device = 0;
    std::uint8_t* block;  // the bytes of the pass, modifiable

    static bool interleavedSubstitute(bool mergedChannels) { return mergedChannels; }

    static void logLoss(int channel, int loss, unsigned, unsigned) {
        KX_LOG(verbosity::kWarning, "[B]Lost data chan %d , %d ", channel, loss);
    }
    static void logMultiLoss(int loss) { KX_LOG(verbosity::kWarning, "[D]Lost data chan %d ", loss); }

    void deliver(const ResponseEntry entry, void* context, const std::uint8_t* frame, std::size_t length) const {
        entry(context, device, frame[2], block + (frame - block), static_cast<int>(length));
    }
};

static_assert(std::endian::native == std::endian::little, "samples are turned round, which compilers do in vectors");

/// Samples come high byte first.
void convertSamples(const std::uint8_t* from, int* to, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        std::uint16_t word = 0;
        std::memcpy(&word, from + 2 * i, 2);
        to[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>((word << 8) | (word >> 8)));
    }
}

/// The sum of eight bytes, all at once: noise that looks like responses makes every second byte ask for it.
unsigned sumOfEight(const std::uint8_t* bytes) {
    constexpr std::uint64_t kEverySecondByte = 0x00FF00FF00FF00FF;
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    const std::uint64_t pairs = (word & kEverySecondByte) + ((word >> 8) & kEverySecondByte);
    return static_cast<unsigned>((pairs * 0x0001000100010001) >> 48);  // the top 16 bits gather the four pairs
}

/// How many packets are missing. Across the wrap of the counter 255 is added, not 256, so that a loss there reads one
/// less than it is; hosts and their logs know it so.
int missingPackets(unsigned received, unsigned expected) {
    const int difference = static_cast<int>(received) - static_cast<int>(expected);
    return expected > received ? difference + 255 : difference;
}

bool bridged(int loss) {
    return loss == 1 || loss == 2;
}

template <typename Rules>
class FramePass {
  public:
    FramePass(const DecoderTables& tables, const Rules& rules, std::span<const std::uint8_t> bytes)
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
        if (frame[0] == kDataStart) {
            if (frame[1] != kDataStart) {
                return kSkip;
            }
            switch (frame[2]) {
                case kRawKind:
                    return raw(frame, left);
                case kPostKind:
                    return post(frame, left);
                case kBatteryKind:
                    return battery(frame);
                default:
                    return kSkip;
            }
        }
        return frame[0] == kResponseStart ? response(frame, left) : kSkip;
    }

    std::size_t battery(const std::uint8_t* frame) const {
        if (recording()) {
            if (const BattInfoEntry entry = tables_.callbacks.battInfo.load()) {
                entry(context(), rules_.device, frame[4], (frame[5] & 0x3Fu) * 100);
            }
        }
        return kBatteryFrame;
    }

    std::size_t post(const std::uint8_t* frame, std::size_t left) const {
        if (left < kPostFrame) {
            return kWait;
        }
        if (recording()) {
            if (const PostDataEntry entry = tables_.callbacks.postData.load()) {
                std::array<unsigned int, 8> values{};
                for (std::size_t i = 0; i < values.size(); ++i) {
                    const std::uint8_t* const value = frame + 11 + 3 * i;
                    values[i] =
                        (static_cast<unsigned>(value[0]) << 16) | (static_cast<unsigned>(value[1]) << 8) | value[2];
                }
                const bool hasFourth = frame[5] == 8;
                // Post data carries device 0 whichever headset sent it; hosts are built on that.
                entry(context(), 0, frame[4], frame[6], frame[8], hasFourth ? frame[7] : std::uint8_t{0},
                      values.data());
            }
        }
        return kPostFrame;
    }

    std::size_t raw(const std::uint8_t* frame, std::size_t left) const {
        if (left < kRawFrame) {
            KX_LOG(verbosity::kWarning, "Parse data error, not enough data. %d ", static_cast<int>(left));
            return kWait;
        }
        const std::uint8_t channelByte = frame[3];
        const int low = channelByte & 0x0F;
        if ((channelByte & 0x80) != 0) {
            singleChannel(frame, low);
        } else if ((channelByte & 0x40) == 0) {
            KX_LOG(verbosity::kWarning, "Parse data error, channel invalid %x.", static_cast<unsigned>(channelByte));
            return kSkip;
        } else if (low == 0) {
            KX_LOG(verbosity::kWarning, "Parse data error, channel is 0.");
            return kSkip;
        } else {
            multiChannel(frame, low);
        }
        return kRawFrame;
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
            convertSamples(frame + kSampleOffset, samples.data(), kSamples);
            entry(context(), device, channel, samples.data(), kSamples);
        }
    }

    [[gnu::cold, gnu::noinline]] void bridgeSingleChannel(int channel, unsigned received, unsigned expected) const {
        const int loss = missingPackets(received, expected);
        rules_.logLoss(channel, loss, received, expected);
        for (int lost = 0; bridged(loss) && lost < loss; ++lost) {
            if (const RawDataEntry entry = rawEntry()) {
                std::array<int, kSamples> zeros{};
                entry(context(), rules_.device, channel, zeros.data(), kSamples);
            }
        }
    }

    void multiChannel(const std::uint8_t* frame, int channels) const {
        const unsigned received = frame[kCounterOffset];
        const unsigned expected = tables_.packetCounters.expected(rules_.device, 0);
        if (expected == PacketCounters::kNoneSeen) {
            // Stores this packet's own counter, so the next one reports a loss of 1 and is preceded by one substitute:
            // the packet held back here is made up for.
            tables_.packetCounters.expect(rules_.device, 0, received);
            return;
        }
        if (received != expected) {
            const int loss = missingPackets(received, expected);
            rules_.logMultiLoss(loss);
            for (int lost = 0; bridged(loss) && lost < loss; ++lost) {
                substituteMultiChannel(channels);
            }
        }
        tables_.packetCounters.received(rules_.device, 0, received);
        deliverMultiChannel(frame, channels);
    }

    void substituteMultiChannel(int channels) const {
        const RawDataEntry entry = rawEntry();
        if (entry == nullptr) {
            return;
        }
        if (rules_.interleavedSubstitute(merged())) {
            // Announces 112 values a channel, more than a real interleaved packet holds.
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
        convertSamples(frame + kSampleOffset, interleaved.data(), kSamples);
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

    std::size_t response(const std::uint8_t* frame, std::size_t left) const {
        if (frame[1] != kResponseSecond && frame[1] != kResponseOtherSecond) {
            KX_LOG(verbosity::kWarning, "Parse data error, lost sync for command. length: %d ", static_cast<int>(left));
            return kSkip;
        }
        // Both lengths are announced by the same start bytes; only the check byte tells them apart.
        const unsigned shortSum = sumOfEight(frame);
        if (checkByteHolds(frame, shortSum)) {
            deliverResponse(frame, kShortResponse);
            return kShortResponse;
        }
        if (left < kLongResponse) {
            return kWait;
        }
        if (checkByteHolds(frame, shortSum + sumOfEight(frame + kShortResponse))) {
            deliverResponse(frame, kLongResponse);
            return kLongResponse;
        }
        KX_LOG(verbosity::kWarning, "Response checksum error.");
        KX_LOG(verbosity::kWarning, "Parse data error, lost sync for command2. length: %d ", static_cast<int>(left));
        return kSkip;
    }

    /// Whether a response whose bytes add up to `sum` is sound: a check byte, the complement of the others' sum, makes
    /// all bytes but the start bytes add up to 0xFF.
    static bool checkByteHolds(const std::uint8_t* frame, unsigned sum) {
        return static_cast<std::uint8_t>(sum - frame[0] - frame[1]) == 0xFF;
    }

    void deliverResponse(const std::uint8_t* frame, std::size_t length) const {
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
    return FramePass<DeviceRules>(tables, rules, bytes).run();
}

std::size_t decodeDirectFrames(const DecoderTables& tables, std::span<std::uint8_t> bytes) {
    const DirectRules rules{bytes.data()};
    return FramePass<DirectRules>(tables, rules, bytes).run();
}

}  // namespace kxorbeta_if
