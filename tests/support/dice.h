#pragma once

#include <random>
#include <string_view>

#include "support/stream_builder.h"

namespace test {

/// Choices that follow from a seed.
struct Dice {
    std::size_t pick(std::size_t count) { return engine() % count; }
    bool oneIn(std::size_t count) { return pick(count) == 0; }
    std::mt19937 engine;
};

/// Damages up to `most` places: bytes become others, are missing, come twice, or have the beginning of something else
/// between them.
inline void damage(Dice& dice, Bytes& bytes, std::size_t most) {
    static constexpr std::string_view kSpecial("#:AT+D0159-\0\x55\xAA\xE2\x02\x20\xDD\n\r ", 20);
    static constexpr const char* kBeginnings[] = {"AT+DAT1", "AT+DAT1:8#", "Boot"};
    for (std::size_t left = 1 + dice.pick(most); left > 0 && bytes.size() > 64; --left) {
        const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(dice.pick(bytes.size() - 32));
        const auto length = static_cast<std::ptrdiff_t>(1 + dice.pick(dice.oneIn(4) ? 32 : 3));
        const std::size_t how = dice.pick(5);
        if (how < 2) {
            *at = static_cast<std::uint8_t>(how == 0 ? dice.pick(256) : std::size_t(kSpecial[dice.pick(20)]) & 255);
        } else if (how == 2) {
            bytes.erase(at, at + length);
        } else {
            const Bytes more = how == 3 ? Bytes(at, at + length) : bytesOf(kBeginnings[dice.pick(3)]);
            bytes.insert(at, more.begin(), more.end());
        }
    }
}

}  // namespace test
