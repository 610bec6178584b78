#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, size)
#define ASAN_UNPOISON_MEMORY_REGION(address, size)
#endif

#include "core/receive_buffer.h"

namespace test {

/// Gives `chunk` to the buffer as a read would and parses it; the address sanitizer sees every look beyond it.
inline void feed(kxorbeta_if::ReceiveBuffer& buffer, kxorbeta_if::StreamFramer& framer,
                 std::span<const std::uint8_t> chunk) {
    const auto room = buffer.room();
    std::copy(chunk.begin(), chunk.end(), room.begin());
    [[maybe_unused]] const auto beyond = room.subspan(chunk.size());
    ASAN_POISON_MEMORY_REGION(beyond.data(), beyond.size());
    buffer.parse(chunk.size(), framer);
    ASAN_UNPOISON_MEMORY_REGION(beyond.data(), beyond.size());
}

}  // namespace test
