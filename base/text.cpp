#include "base/text.h"

#include <algorithm>
#include <charconv>

namespace kxorbeta_if {

std::string hexText(std::span<const std::uint8_t> bytes) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0x0F]);
    }
    return text;
}

std::optional<std::int32_t> leadingNumber(std::string_view text) noexcept {
    // Our own list of white space: the standard character test asks the locale, which belongs to the host.
    const std::size_t start = text.find_first_not_of(" \t\n\v\f\r");
    if (start == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(start);
    if (text.size() >= 2 && text[0] == '+' && text[1] != '-') {
        text.remove_prefix(1);  // from_chars knows '-' only
    }
    std::int32_t number = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc{}) {
        return std::nullopt;
    }
    return number;
}

bool isHexText(std::string_view text) noexcept {
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
}

}  // namespace kxorbeta_if
