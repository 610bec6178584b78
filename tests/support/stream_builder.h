#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// Builds what headsets and the dongle send. Written from the layout of the frames alone, for tests, fuzzers and
/// benchmarks, so that a mistake of the library cannot cancel itself out. Bytes that mean nothing are not 0.
namespace test {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text);
std::string stringOf(const Bytes& bytes);
/// From pairs of hexadecimal digits, upper case; the other way round for `hexOf`.
Bytes fromHex(std::string_view digits);
std::string hexOf(const Bytes& bytes);
Bytes part(const Bytes& bytes, std::size_t from, std::size_t to = std::string_view::npos);
Bytes joined(std::initializer_list<Bytes> parts);
void append(Bytes& to, const Bytes& more);

inline constexpr int kSlots = 112;  ///< sample slots of a raw frame

constexpr std::uint8_t singleChannel(int channel) {
    return static_cast<std::uint8_t>(0x80 | channel);
}
constexpr std::uint8_t multiChannel(int count) {
    return static_cast<std::uint8_t>(0x40 | count);
}

/// 112 samples, none of them 0, whose bytes are never 0x55 or 0xAA, so that no part of them looks like a frame's start.
/// Both signs and both ends of the range occur. Different seeds give different samples.
std::vector<int> samples(unsigned seed);

Bytes rawFrame(std::uint8_t channelByte, const std::vector<int>& samples, int counter);
Bytes batteryFrame(std::uint8_t level, std::uint8_t second);

struct Post {
    std::uint8_t value1, selector, value2, fourth, value3;
    std::array<std::uint32_t, 8> bands;
};
Bytes postFrame(const Post& post);

/// A response with a right check byte: 4 bytes of data make a short one, 12 a long one.
Bytes responseFrame(std::uint8_t second, std::uint8_t command, const Bytes& data);

/// The dongle's frame around a payload.
Bytes envelope(int device, const Bytes& payload);

}  // namespace test
