#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <span>

/// The byte frames that headsets send. Offsets count from a frame's first byte; numbers are big-endian. Functions that
/// take a frame by its first byte read no further than the frame's length.
namespace protocol {

inline constexpr std::uint8_t kDataStart = 0x55;  // twice, then the kind
inline constexpr std::uint8_t kBatteryKind = 0x02;
inline constexpr std::uint8_t kPostKind = 0x20;
inline constexpr std::uint8_t kRawKind = 0xE2;

inline constexpr std::uint8_t kResponseStart = 0xAA;  // then one of these two, whatever the length:
inline constexpr std::uint8_t kResponseSecond = 0xDD;
inline constexpr std::uint8_t kResponseOtherSecond = 0xEE;

inline constexpr std::size_t kBatteryFrame = 8;
inline constexpr std::size_t kPostFrame = 36;
inline constexpr std::size_t kRawFrame = 230;
inline constexpr std::size_t kShortResponseFrame = 8;
inline constexpr std::size_t kLongResponseFrame = 16;
inline constexpr std::size_t kShortestFrame = std::min(kBatteryFrame, kShortResponseFrame);

inline constexpr int kSamples = 112;  ///< 16-bit sample slots of a raw frame
inline constexpr std::size_t kSampleOffset = 4;
inline constexpr std::size_t kCounterOffset = kSampleOffset + 2 * kSamples;
static_assert(kCounterOffset == 228);

inline constexpr int kHeadsets = 16;  ///< headsets that one dongle can number, from 0
inline constexpr int kChannels = 16;  ///< channels that a raw frame can name, from 0

/// The check byte of responses and commands: the complement of the 8-bit sum of the bytes before it, the sync word
/// left out.
inline std::uint8_t checkByte(std::span<const std::uint8_t> bytes) {
    return static_cast<std::uint8_t>(~std::accumulate(bytes.begin(), bytes.end(), 0u));
}

/// The sum of eight bytes, all at once: garbage that looks like responses makes every second byte ask for it.
inline unsigned sumOfEight(const std::uint8_t* bytes) {
    constexpr std::uint64_t kEverySecondByte = 0x00FF00FF00FF00FF;
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    const std::uint64_t pairs = (word & kEverySecondByte) + ((word >> 8) & kEverySecondByte);
    return static_cast<unsigned>((pairs * 0x0001000100010001) >> 48);  // the top 16 bits gather the four pairs
}

/// Whether the check byte of a response whose bytes add up to `sum` is right: a check byte, the complement of the
/// others' sum, makes all bytes but the two of the sync word add up to 0xFF.
inline bool checkByteHolds(const std::uint8_t* frame, unsigned sum) {
    return static_cast<std::uint8_t>(sum - frame[0] - frame[1]) == 0xFF;
}

inline bool isShortResponse(const std::uint8_t* frame) {
    return checkByteHolds(frame, sumOfEight(frame));
}

inline bool isLongResponse(const std::uint8_t* frame) {
    static_assert(kShortResponseFrame == 8 && kLongResponseFrame == 16, "responses are summed eight bytes at a time");
    return checkByteHolds(frame, sumOfEight(frame) + sumOfEight(frame + kShortResponseFrame));
}

/// What the bytes at one place are.
enum class FrameKind : std::uint8_t {
    // A whole frame.
    kRaw,
    kPost,
    kBattery,
    kShortResponse,
    kLongResponse,
    // The beginning of a frame, whose rest is still to come.
    kIncompleteRaw,
    kIncompletePost,
    kIncompleteResponse,  ///< no short response, and too few bytes for a long one
    // No frame, and why.
    kNoStart,
    kInvalidChannel,    ///< a raw frame whose channel byte names neither a channel nor a number of channels
    kNoChannels,        ///< a raw frame with 0 channels
    kNoResponseStart,   ///< a response's first byte without its second
    kInvalidCheckByte,  ///< wrong for either length of a response
};

/// The channel byte of a raw frame.
struct ChannelByte {
    std::uint8_t value;

    constexpr bool single() const { return (value & 0x80) != 0; }
    constexpr bool multi() const { return (value & 0xC0) == 0x40; }
    /// The channel, 0 to 15, of a single-channel frame; the number of channels, 1 to 15, of a multi-channel one.
    constexpr int number() const { return value & 0x0F; }
};

/// Classifies the `left` bytes at `frame`, which are at least kShortestFrame. Of the two lengths of a response, which
/// only the check byte tells apart, the short one wins where both would do.
inline FrameKind classify(const std::uint8_t* frame, std::size_t left) {
    if (frame[0] == kDataStart) {
        if (frame[1] != kDataStart) {
            return FrameKind::kNoStart;
        }
        switch (frame[2]) {
            case kRawKind: {
                if (left < kRawFrame) {
                    return FrameKind::kIncompleteRaw;
                }
                const ChannelByte channel{frame[3]};
                if (channel.single()) {
                    return FrameKind::kRaw;
                }
                if (!channel.multi()) {
                    return FrameKind::kInvalidChannel;
                }
                return channel.number() == 0 ? FrameKind::kNoChannels : FrameKind::kRaw;
            }
            case kPostKind:
                return left < kPostFrame ? FrameKind::kIncompletePost : FrameKind::kPost;
            case kBatteryKind:
                return FrameKind::kBattery;
            default:
                return FrameKind::kNoStart;
        }
    }
    if (frame[0] != kResponseStart) {
        return FrameKind::kNoStart;
    }
    if (frame[1] != kResponseSecond && frame[1] != kResponseOtherSecond) {
        return FrameKind::kNoResponseStart;
    }
    if (isShortResponse(frame)) {
        return FrameKind::kShortResponse;
    }
    if (left < kLongResponseFrame) {
        return FrameKind::kIncompleteResponse;
    }
    return isLongResponse(frame) ? FrameKind::kLongResponse : FrameKind::kInvalidCheckByte;
}

constexpr bool isIncomplete(FrameKind kind) {
    return kind == FrameKind::kIncompleteRaw || kind == FrameKind::kIncompletePost ||
           kind == FrameKind::kIncompleteResponse;
}

/// Whether `left` bytes, one or more, may be a frame or the beginning of one, as far as its first bytes tell: start
/// bytes, kind and channel.
inline bool mayStartFrame(const std::uint8_t* frame, std::size_t left) {
    if (frame[0] == kResponseStart) {
        return left < 2 || frame[1] == kResponseSecond || frame[1] == kResponseOtherSecond;
    }
    if (frame[0] != kDataStart || (left >= 2 && frame[1] != kDataStart)) {
        return false;
    }
    if (left < 3 || frame[2] == kBatteryKind || frame[2] == kPostKind) {
        return true;
    }
    const auto channel = [&] { return ChannelByte{frame[3]}; };
    return frame[2] == kRawKind && (left < 4 || channel().single() || (channel().multi() && channel().number() != 0));
}

/// The length of a whole frame; 0 for anything else.
constexpr std::size_t lengthOf(FrameKind kind) {
    switch (kind) {
        case FrameKind::kRaw:
            return kRawFrame;
        case FrameKind::kPost:
            return kPostFrame;
        case FrameKind::kBattery:
            return kBatteryFrame;
        case FrameKind::kShortResponse:
            return kShortResponseFrame;
        case FrameKind::kLongResponse:
            return kLongResponseFrame;
        default:
            return 0;
    }
}

static_assert(std::endian::native == std::endian::little, "samples are turned round, which compilers do in vectors");

/// Converts the sample slots of a raw frame, which come high byte first, to `Sample`, a signed type of 16 bits or more.
/// Not inlined and without overlap, because only then does g++ vectorise it at -O2 wherever it is called.
template <typename Sample>
[[gnu::noinline, gnu::aligned(64)]] void convertSamples(const std::uint8_t* __restrict frame, Sample* __restrict to) {
    for (std::size_t i = 0; i < kSamples; ++i) {
        std::uint16_t word = 0;
        std::memcpy(&word, frame + kSampleOffset + 2 * i, sizeof word);
        to[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>((word << 8) | (word >> 8)));
    }
}

struct BatteryFields {
    std::uint8_t level;
    unsigned value;  ///< a multiple of 100, up to 6300
};

inline BatteryFields readBattery(const std::uint8_t* frame) {
    return {frame[4], (frame[5] & 0x3Fu) * 100};
}

/// What the headset has computed. The meaning of the numbers is the host's.
struct PostFields {
    std::array<std::uint8_t, 4> values;  ///< the fourth is 0 unless the frame says that it carries one
    std::array<std::uint32_t, 8> bands;  ///< 24 bits each
};

inline PostFields readPost(const std::uint8_t* frame) {
    constexpr std::uint8_t kCarriesFourth = 8;
    const std::uint8_t fourth = frame[5] == kCarriesFourth ? frame[7] : std::uint8_t{0};
    PostFields fields{{frame[4], frame[6], frame[8], fourth}, {}};
    for (std::size_t i = 0; i < fields.bands.size(); ++i) {
        const std::uint8_t* const band = frame + 11 + 3 * i;
        fields.bands[i] =
            (static_cast<std::uint32_t>(band[0]) << 16) | (static_cast<std::uint32_t>(band[1]) << 8) | band[2];
    }
    return fields;
}

}  // namespace protocol
