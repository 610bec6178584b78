#pragma once

#include <cstdint>

namespace velmora::record {

/// How many seconds this computer's local time is ahead of UTC at a moment, given in nanoseconds since 1970 UTC.
std::int32_t localOffset(std::int64_t utc);

}  // namespace velmora::record
