#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace kxorbeta_if {

/// The number that the whole text is: digits of that base, perhaps behind a '-' for signed types, and nothing else.
/// Nothing when it is no such number, or none that the type holds.
template <typename Number>
std::optional<Number> wholeNumber(std::string_view text, int base = 10) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc{} || stop != end) {
        return std::nullopt;
    }
    return value;
}

/// The same within bounds, both included.
template <typename Number>
std::optional<Number> wholeNumber(std::string_view text, Number least, Number most, int base = 10) {
    const auto value = wholeNumber<Number>(text, base);
    return value && *value >= least && *value <= most ? value : std::nullopt;
}

}  // namespace kxorbeta_if
