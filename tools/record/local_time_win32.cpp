#include <windows.h>

#include "record/local_time.h"

namespace velmora::record {

std::int32_t localOffset(std::int64_t utc) {
    // Ticks of 100 nanoseconds since 1601.
    constexpr std::int64_t k1970 = 116'444'736'000'000'000;
    ULARGE_INTEGER moment;
    moment.QuadPart = static_cast<ULONGLONG>(utc / 100 + k1970);
    const FILETIME universal{moment.LowPart, moment.HighPart};
    SYSTEMTIME broken{};
    SYSTEMTIME localBroken{};
    FILETIME local{};
    if (::FileTimeToSystemTime(&universal, &broken) == 0 ||
        ::SystemTimeToTzSpecificLocalTime(nullptr, &broken, &localBroken) == 0 ||
        ::SystemTimeToFileTime(&localBroken, &local) == 0)
        return 0;
    ULARGE_INTEGER there;
    there.LowPart = local.dwLowDateTime;
    there.HighPart = local.dwHighDateTime;
    const auto ticks = static_cast<std::int64_t>(there.QuadPart) - static_cast<std::int64_t>(moment.QuadPart);
    // What is smaller than a millisecond is lost on the way there and back.
    return static_cast<std::int32_t>((ticks + (ticks < 0 ? -5'000'000 : 5'000'000)) / 10'000'000);
}

}  // namespace velmora::record
