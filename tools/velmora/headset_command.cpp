#include "velmora/headset_command.h"

#include <algorithm>
#include <charconv>

namespace velmora {

namespace {

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

}  // namespace

std::optional<std::uint32_t> parseNumber(const std::string& text, std::uint32_t most) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const char* begin = text.data() + (hexadecimal ? 2 : 0);
    const char* end = text.data() + text.size();
    std::uint32_t value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || stop != end || value > most)
        return std::nullopt;
    return value;
}

std::optional<std::vector<unsigned char>> parsePayload(const std::string& text) {
    std::vector<unsigned char> bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] == ' ' || text[at] == ':' || text[at] == ',') {
            ++at;
            continue;
        }
        if (at + 1 >= text.size() || !isHexDigit(text[at]) || !isHexDigit(text[at + 1]))
            return std::nullopt;
        unsigned char byte = 0;
        std::from_chars(text.data() + at, text.data() + at + 2, byte, 16);
        bytes.push_back(byte);
        at += 2;
    }
    return bytes;
}

bool isAddress(const std::string& text) {
    const auto colons = std::count(text.begin(), text.end(), ':');
    const auto digits = std::count_if(text.begin(), text.end(), isHexDigit);
    // The library ends the process when an address has 32 characters or more.
    return digits == 12 && colons + digits == static_cast<std::ptrdiff_t>(text.size()) && text.size() < 32;
}

std::optional<std::string> problemWithPayload(std::size_t length) {
    if (length <= 4 || length == 8 || (length >= 10 && length <= 12))
        return std::nullopt;
    return "a payload of " + std::to_string(length) +
           " bytes cannot be sent: headset commands carry 0 to 4, 8, 10, 11 or 12";
}

std::uint32_t targetSent(std::uint32_t target) {
    if (target >= 13)
        return 1;
    return target >= 10 ? 11 : target;
}

std::vector<std::string> commandWarnings(std::uint32_t target, std::size_t payloadLength) {
    std::vector<std::string> warnings;
    if (payloadLength == 4 || payloadLength == 12)
        warnings.push_back("with " + std::to_string(payloadLength) +
                           " bytes of payload the command code is not sent; the last byte takes its place");
    if (targetSent(target) != target)
        warnings.push_back("target " + std::to_string(target) + " goes out as " + std::to_string(targetSent(target)) +
                           ": 10 to 12 all go out as 11, 13 and more as 1");
    return warnings;
}

}  // namespace velmora
