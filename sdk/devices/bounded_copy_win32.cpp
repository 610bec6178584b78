#include <string.h>

#include <cstdlib>

#include "sdk/devices/bounded_copy.h"

namespace kxorbeta_if {

void copyBounded(char* to, std::size_t capacity, const char* text) {
    // The runtime hands a text that does not fit to its invalid-parameter handler, which ends the process. A host may
    // have set a handler that returns.
    if (strcpy_s(to, capacity, text) != 0) {
        std::abort();
    }
}

}  // namespace kxorbeta_if
