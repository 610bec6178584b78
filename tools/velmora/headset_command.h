// What the user types to name a headset or a command for it, and what the library makes of commands.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace velmora {

/// A decimal number, or a hexadecimal one after 0x, of at most `most`; nothing for any other text. A leading zero does
/// not mean octal.
std::optional<std::uint32_t> parseNumber(const std::string& text, std::uint32_t most);

/// Bytes as pairs of hexadecimal digits, between which spaces, ':' and ',' may stand; nothing for any other text.
std::optional<std::vector<unsigned char>> parsePayload(const std::string& text);

/// A Bluetooth address: 12 hexadecimal digits, apart from ':'.
bool isAddress(const std::string& text);

/// Why the library would not send a payload of that length; nothing when it does.
std::optional<std::string> problemWithPayload(std::size_t length);

/// The index that goes out for a target: 0 (all) to 9, or 11.
std::uint32_t targetSent(std::uint32_t target);

/// What the user may not expect of a command that the library does send.
std::vector<std::string> commandWarnings(std::uint32_t target, std::size_t payloadLength);

}  // namespace velmora
