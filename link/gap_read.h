#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "base/clock.h"

namespace kxorbeta_if {

inline constexpr std::chrono::milliseconds kByteGap{10};  ///< that long without a byte ends a read with a gap

/// Port::read() made of a read of what is there: `take(buffer, maxBytes, deadline)` waits for bytes and returns how
/// many it took, 0 when none came by its deadline or it was woken, and less when the line is gone.
template <typename Take>
int readWithGap(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs, Take&& take) {
    const Clock::Time deadline = systemClock().now() + std::chrono::milliseconds(timeoutMs);
    Clock::Time next = deadline;
    std::uint32_t count = 0;
    while (count < maxBytes) {
        const int got = take(static_cast<char*>(buffer) + count, maxBytes - count, next);
        if (got == 0) {
            break;
        }
        if (got < 0) {  // gone: what came before still counts
            return count > 0 ? static_cast<int>(count) : got;
        }
        count += static_cast<std::uint32_t>(got);
        const Clock::Time now = systemClock().now();
        if (now >= deadline) {
            break;  // however fast bytes keep coming
        }
        next = std::min(deadline, now + kByteGap);
    }
    return static_cast<int>(count);
}

}  // namespace kxorbeta_if
