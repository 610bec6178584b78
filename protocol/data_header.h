#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base/text.h"

/// The dongle's frame around what a headset sends: "AT+DAT", the headset's index in decimal, ':', the payload's length
/// in decimal, '#', the payload.
namespace protocol {

inline constexpr std::string_view kSyncWord = "AT+DAT";
inline constexpr std::size_t kShortestDataFrame = 10;  ///< sync word, two one-digit numbers, ':' and '#'
inline constexpr std::size_t kFarthestDelimiter = 16;  ///< '#' counted from the frame's first byte
inline constexpr std::size_t kLongestHeader = kFarthestDelimiter + 1;

struct DataHeader {
    std::size_t length = 0;   ///< up to and with the '#'
    int device = 0;           ///< as it stands there, any 32-bit number
    std::size_t payload = 0;  ///< the announced length
};

/// Whether the sync word stands at `bytes`, which are at least as many.
inline bool isSyncWord(const std::uint8_t* bytes) {
    return std::memcmp(bytes, kSyncWord.data(), kSyncWord.size()) == 0;
}

/// Reads a header that has digits, perhaps none, and nothing else on both sides of the ':'. False for any other.
/// kLongestHeader bytes lie at `start`.
inline bool readPlainHeader(const std::uint8_t* start, DataHeader& header) {
    if (!isSyncWord(start)) {
        return false;
    }
    const std::uint8_t* const last = start + kFarthestDelimiter;
    const std::uint8_t* next = start + kSyncWord.size();
    // At most ten digits stand before the farthest delimiter, nine of them beside a ':', so nothing overflows.
    const auto number = [&] {
        std::uint32_t value = 0;
        for (; next < last && *next >= '0' && *next <= '9'; ++next) {
            value = value * 10 + (*next - std::uint32_t{'0'});
        }
        return value;
    };
    const std::uint32_t device = number();
    if (*next++ != ':') {
        return false;
    }
    const std::uint32_t payload = number();
    if (next > last || *next != '#') {
        return false;
    }
    header = {static_cast<std::size_t>(next + 1 - start), static_cast<int>(device), payload};
    return true;
}

enum class HeaderText : std::uint8_t { kRead, kNoColon, kNegativeLength };

/// Reads the numbers of a header's text, what stands between sync word and '#', as the standard C conversion reads
/// them: leading blanks and a sign allowed, anything that is not a number counts as 0. At most ten characters, which
/// cannot exceed 32 bits.
inline HeaderText readHeaderText(std::string_view text, DataHeader& header) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        return HeaderText::kNoColon;
    }
    const int payload = kxorbeta_if::leadingNumber(text.substr(colon + 1)).value_or(0);
    if (payload < 0) {
        return HeaderText::kNegativeLength;
    }
    header.length = kSyncWord.size() + text.size() + 1;
    header.device = kxorbeta_if::leadingNumber(text.substr(0, colon)).value_or(0);
    header.payload = static_cast<std::size_t>(payload);
    return HeaderText::kRead;
}

}  // namespace protocol
