// What the user types, as values. Nothing stands for a text that is none of the kind.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/velmora.hpp"

namespace velmora::cli {

/// A decimal number, or a hexadecimal one after 0x, of at most `most`. A leading zero does not mean octal.
std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t most);

/// Bytes as pairs of hexadecimal digits, between which spaces, ':' and ',' may stand.
std::optional<std::vector<std::uint8_t>> parsePayload(std::string_view text);

/// The 12 hexadecimal digits of a headset's address, which may have ':' between them, in the letter case given.
std::optional<std::string> parseAddress(std::string_view text);

/// Seconds: a number above 0, perhaps with "s", "m" or "h" behind it.
std::optional<double> parseSeconds(std::string_view text);

/// What a key writes into a recording: "b=blink".
struct Mark {
    char key = 0;
    std::string text;
};
std::optional<Mark> parseMark(std::string_view text);

/// Which of the headsets that a scan found the user wants.
struct Selection {
    std::vector<std::string> wanted;  ///< addresses or names
    bool all = false;
};

/// Without anything wanted the only one there is. Throws Failure, with a text that says what was found, when one that
/// is wanted is missing or could be any of several.
std::vector<Found> choose(std::span<const Found> found, const Selection& selection);

/// A line with address and name of each.
std::string headsetTable(std::span<const Found> found);
/// "XAI-01 (A1B2C3D4E501)".
std::string headsetText(std::string_view address, std::string_view name);

}  // namespace velmora::cli
