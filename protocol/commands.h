#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// What is sent to the dongle, and through it to headsets.
namespace protocol {

// The dongle's text commands. All but the ping and the envelope of a headset's command end with a zero byte.
inline constexpr std::string_view kPing = "AT+PING";
inline constexpr std::string_view kScan("AT+SCAN\0", 8);
inline constexpr std::string_view kDisconnectAll("AT+DISCONN\0", 11);
inline constexpr std::string_view kDisconnectOne = "AT+DISDEV=";  ///< then the address
inline constexpr std::string_view kConnectGroup = "AT+GRPCONN=";  ///< then the members, by appendGroupMember()
inline constexpr std::size_t kLongestCommandText = 512;           ///< zero byte left out; a longer one is not sent

/// Appends one headset to a command that begins with kConnectGroup. An `option` of 0 is not sent.
void appendGroupMember(std::string& command, bool first, std::string_view address, int option);

/// Bytes of a command, kept where they are built.
template <std::size_t Capacity>
class CommandBytes {
  public:
    std::span<const std::uint8_t> bytes() const { return std::span(bytes_).first(length_); }
    bool empty() const { return length_ == 0; }

    std::uint8_t& operator[](std::size_t i) { return bytes_[i]; }
    std::span<std::uint8_t> resize(std::size_t length) {
        length_ = length;
        return std::span(bytes_).first(length);
    }

  private:
    std::array<std::uint8_t, Capacity> bytes_{};
    std::size_t length_ = 0;
};

using CommandFrame = CommandBytes<16>;
using CommandEnvelope = CommandBytes<6 + 2 + 1 + 16>;

/// A headset's command frame of 8 or 16 bytes; empty for payload lengths that have no frame (5, 6, 7, 9, above 12).
/// With 4 and 12 bytes the payload takes the place of the command code.
CommandFrame commandFrame(std::uint8_t command, std::span<const std::uint8_t> payload);

/// How the dongle is told which headset a command is for: "AL" for 0 (all), one digit for 1 to 9, "11" for 10 to 12,
/// "1" for any other. Required; keep.
std::string_view commandTarget(std::uint32_t headset);

/// "AT+CTL", the target, ':', the frame.
CommandEnvelope commandEnvelope(std::uint32_t headset, const CommandFrame& frame);

}  // namespace protocol
