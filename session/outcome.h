#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "velmora/velmora.h"

namespace velmora {

/// What a call came to: the status, and unless it is VELMORA_OK what to tell people about it.
struct Outcome {
    velmora_status status = VELMORA_OK;
    int systemCode = 0;
    std::string text{};

    bool ok() const { return status == VELMORA_OK; }
};

inline Outcome failure(velmora_status status, std::string text, int systemCode = 0) {
    return {status, systemCode, std::move(text)};
}

inline Outcome invalid(std::string text) {
    return failure(VELMORA_INVALID, std::move(text));
}

Outcome cancelled();
Outcome closed();
Outcome gone();
/// What a status means that ended a wait.
Outcome ending(velmora_status status);

const char* statusName(velmora_status status);

/// The beginning of a text in UTF-8, cut to `most` bytes, or to less where that would cut a character.
inline std::string_view beginning(std::string_view text, std::size_t most) {
    const auto insideCharacter = [&](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80; };
    while (most < text.size() && most > 0 && insideCharacter(most)) {
        --most;
    }
    return text.substr(0, most);
}

/// Copies a text into a member of a zeroed struct, cut to what it holds.
template <std::size_t Size>
void copyText(char (&to)[Size], std::string_view from) {
    beginning(from, Size - 1).copy(to, Size - 1);
}

}  // namespace velmora
