#pragma once

#include <cstdint>

namespace kxorbeta_if {

/// How bytes travel on the line. Fields hold what the words say, not an index and not a platform's code.
struct LineSettings {
    enum class Stop { kOne, kOneAndHalf, kTwo };
    enum class Parity { kNone, kEven, kOdd, kMark, kSpace };

    std::uint32_t baud = 0;
    int dataBits = 8;  ///< 5 to 8, and 16, which no device takes
    Stop stop = Stop::kOne;
    Parity parity = Parity::kNone;
};

}  // namespace kxorbeta_if
