#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <span>

/// The byte frames that headsets send and receive. Offsets count from a frame's first byte; numbers are big-endian.
namespace kxorbeta_if::headset {

inline constexpr std::uint8_t kDataStart = 0x55;  // twice, then the kind
inline constexpr std::uint8_t kBatteryKind = 0x02;
inline constexpr std::uint8_t kPostKind = 0x20;
inline constexpr std::uint8_t kRawKind = 0xE2;

inline constexpr std::uint8_t kResponseStart = 0xAA;  // then one of these two, whatever the length:
inline constexpr std::uint8_t kResponseSecond = 0xDD;
inline constexpr std::uint8_t kResponseOtherSecond = 0xEE;

inline constexpr std::uint8_t kCommandStart = 0xAA;
inline constexpr std::uint8_t kCommandSecond = 0xCC;
inline constexpr std::uint8_t kCommandThird = 0x03;

inline constexpr std::size_t kBatteryFrame = 8;
inline constexpr std::size_t kPostFrame = 36;
inline constexpr std::size_t kRawFrame = 230;
inline constexpr std::size_t kShortResponse = 8;
inline constexpr std::size_t kLongResponse = 16;
inline constexpr std::size_t kShortestFrame = std::min(kBatteryFrame, kShortResponse);

inline constexpr int kSamples = 112;  ///< 16-bit sample slots of a raw frame
inline constexpr std::size_t kSampleOffset = 4;
inline constexpr std::size_t kCounterOffset = kSampleOffset + 2 * kSamples;
static_assert(kCounterOffset == 228);

inline constexpr std::size_t kLargestInterleaved = 16 * kSamples;

/// The check byte of responses and commands: the complement of the 8-bit sum of the bytes before it, start bytes left
/// out.
inline std::uint8_t checkByte(std::span<const std::uint8_t> bytes) {
    return static_cast<std::uint8_t>(~std::accumulate(bytes.begin(), bytes.end(), 0u));
}

}  // namespace kxorbeta_if::headset
