// How samples are divided into the records of an EDF+ file.
#pragma once

#include <cstdint>
#include <string>

namespace velmora::record {

/// The greatest size of a data record that EDF allows.
inline constexpr std::size_t kEdfRecordLimit = 61'440;

/// Numbers of a header have eight characters.
inline constexpr std::size_t kEdfNumberWidth = 8;

/// What stands behind an annotation's onset, and its duration if it has one, and behind each of its texts; and what
/// stands before the duration.
inline constexpr char kEdfEnd = 0x14;
inline constexpr char kEdfDuration = 0x15;

struct EdfLayout {
    std::int64_t samples = 0;         ///< of each channel in a record
    std::int64_t recordTicks = 0;     ///< duration of a record in units of 100 ns
    std::string recordSeconds;        ///< the same as the header has it
    std::size_t annotationBytes = 0;  ///< in a record; even
    std::size_t recordBytes = 0;

    /// The rate that a reader computes from the header.
    double rate() const { return static_cast<double>(samples) * 1e7 / static_cast<double>(recordTicks); }
};

/// Records of a second, or of the longest shorter time of whole samples that the header's numbers say exactly; where
/// there is none, of the time that comes nearest to the rate. `rate` is 1 to 100,000, `channels` 1 to 16.
EdfLayout edfLayout(double rate, std::size_t channels);

/// The shortest text of at most `width` characters, without exponent, that is nearest to the value.
std::string edfNumber(double value, std::size_t width = kEdfNumberWidth);

/// Physical values for digital -32768 and 32767 as the header's texts say them. Throws std::invalid_argument when the
/// gain is not above 0 or its range cannot be said in eight characters to a thousandth.
struct EdfRange {
    std::string minText, maxText;
    double min = 0, max = 0;

    double gain() const { return (max - min) / 65535; }
};
EdfRange edfRange(double gain);

}  // namespace velmora::record
