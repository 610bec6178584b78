#include <cstdlib>
#include <cstring>

#include "sdk/devices/bounded_copy.h"

namespace kxorbeta_if {

void copyBounded(char* to, std::size_t capacity, const char* text) {
    const std::size_t length = std::strlen(text);
    if (length >= capacity) {
        std::abort();
    }
    std::memcpy(to, text, length + 1);
}

}  // namespace kxorbeta_if
