#include <ctime>

#include "record/local_time.h"

namespace velmora::record {

std::int32_t localOffset(std::int64_t utc) {
    const auto seconds = static_cast<std::time_t>(utc / 1'000'000'000);
    std::tm local{};
    return ::localtime_r(&seconds, &local) != nullptr ? static_cast<std::int32_t>(local.tm_gmtoff) : 0;
}

}  // namespace velmora::record
