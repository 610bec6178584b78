#pragma once

#include <cstddef>

namespace kxorbeta_if {

/// Copies a text with its zero byte. A text that does not fit ends the process; no byte is written beyond `capacity`.
void copyBounded(char* to, std::size_t capacity, const char* text);

}  // namespace kxorbeta_if
