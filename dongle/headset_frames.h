// The bytes that headsets send, and the envelope in which the dongle passes them on. Numbers in them are big-endian.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace dongle {

using Bytes = std::vector<std::uint8_t>;

inline constexpr int kSamplesPerFrame = 112;
inline constexpr std::size_t kRawFrameSize = 230;

/// The signal of every virtual headset: sample `n` (from 0, counted per channel since the headset connected) of a
/// channel.
///
///   sine(n * (channel + 1)) + 8 * (n mod 1024) + 512 * device + 32 * channel
///
/// where sine has an amplitude of 8,000 and a period of 256 steps. So every channel shows a wave of its own on a ramp,
/// no sample leaves 16 bits, and a gap or a mix-up of channels or devices (0 to 15 each) shows as a wrong value.
std::int16_t sampleValue(int device, int channel, std::uint64_t n);

/// What the `n`-th post frame (from 0) of a device carries: a function of both, like the signal.
struct PostValues {
    std::uint8_t value1 = 0;               ///< n
    std::uint8_t selector = 0;             ///< n mod 10; the fourth value counts only where it is 8
    std::uint8_t value2 = 0;               ///< the device
    std::uint8_t value3 = 0;               ///< 3 * n
    std::uint8_t value4 = 0;               ///< 5 * n + 1
    std::array<std::uint32_t, 8> bands{};  ///< device << 20 | position << 16 | n mod 65536: 24 bits each
};
PostValues postValues(int device, std::uint64_t n);

/// 8 bytes. `extra` is 0 to 63: the frame has no more room for it.
Bytes batteryFrame(std::uint8_t value, std::uint8_t extra);

/// 36 bytes.
Bytes postFrame(const PostValues& values);

/// 230 bytes with 112 samples of one channel (0 to 15).
Bytes singleChannelFrame(int channel, std::span<const std::int16_t> samples, std::uint8_t counter);

/// 230 bytes with samples of `channels` (1 to 15) channels, interleaved; slots without a sample are 0.
Bytes multiChannelFrame(int channels, std::span<const std::int16_t> interleaved, std::uint8_t counter);

/// Response frame with `mark` 0xDD or 0xEE: 8 bytes with up to 4 bytes of data, or 16 bytes with up to 12.
Bytes shortResponse(std::uint8_t mark, std::uint8_t command, std::span<const std::uint8_t> data);
Bytes longResponse(std::uint8_t mark, std::uint8_t command, std::span<const std::uint8_t> data);

/// The payload behind the header "AT+DAT<index>:<length>#".
Bytes dataEnvelope(int index, std::span<const std::uint8_t> payload);

/// The check byte of command and response frames: the complement of the 8-bit sum of the given bytes.
std::uint8_t checkByte(std::span<const std::uint8_t> bytes);

}  // namespace dongle
