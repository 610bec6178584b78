#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kxorbeta_if {

/// Bytes as text for the log: two upper-case hexadecimal digits each, no separators.
std::string hexText(std::span<const std::uint8_t> bytes);

/// The number that `text` begins with, as standard C reads decimal integers: leading white space and a sign allowed,
/// reading stops at the first other character. Nothing when there are no digits or the number exceeds 32 bits.
std::optional<std::int32_t> leadingNumber(std::string_view text) noexcept;

/// Whether every character is a hexadecimal digit of either case. True for an empty text.
bool isHexText(std::string_view text) noexcept;

/// Calls `use` for every piece of `text` between delimiters, as a standard line reader yields them: the delimiter
/// belongs to no piece, a last piece without delimiter counts, nothing follows a delimiter that ends the text.
template <typename Use>
void forEachPiece(std::string_view text, char delimiter, Use&& use) {
    while (!text.empty()) {
        const std::size_t end = text.find(delimiter);
        use(text.substr(0, end));
        if (end == std::string_view::npos) {
            return;
        }
        text.remove_prefix(end + 1);
    }
}

inline std::string_view asText(std::span<const std::uint8_t> bytes) noexcept {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace kxorbeta_if
