#include "record/edf_layout.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <stdexcept>

namespace velmora::record {

namespace {

constexpr std::int64_t kMicrosecond = 10;  // ticks; what the header's characters resolve below a second

// Room for the record's own time, one long annotation, and the losses of single-channel packets when every other packet
// is lost: one in 224 samples, told in 48 bytes. Beyond that annotations move on to later records.
constexpr double kLeastAnnotationBytes = 512;
constexpr double kAnnotationBytesPerSample = 48.0 / 224;

EdfLayout layoutOf(std::int64_t samples, std::int64_t ticks, std::size_t channels) {
    EdfLayout layout;
    layout.samples = samples;
    layout.recordTicks = ticks;
    layout.recordSeconds = edfNumber(static_cast<double>(ticks) / 1e7);
    const auto values = static_cast<std::size_t>(samples) * channels;
    const double annotations = kLeastAnnotationBytes + kAnnotationBytesPerSample * static_cast<double>(values);
    layout.annotationBytes = 2 * static_cast<std::size_t>(annotations / 2);
    layout.recordBytes = 2 * values + layout.annotationBytes;
    return layout;
}

// Apart from what the computation rounds.
bool isSame(double a, double b) {
    return std::abs(a - b) <= 1e-12 * b;
}

}  // namespace

EdfLayout edfLayout(double rate, std::size_t channels) {
    // Durations that people read easily.
    for (const double seconds : {1.0, 0.5, 0.25, 0.2, 0.125, 0.1}) {
        const double samples = rate * seconds;
        const EdfLayout layout = layoutOf(std::llround(samples), std::llround(seconds * 1e7), channels);
        if (samples >= 1 && isSame(layout.rate(), rate) && layout.recordBytes <= kEdfRecordLimit) {
            return layout;
        }
    }
    // The longest that says the rate exactly; if there is none, the one that comes nearest. None much shorter than need
    // be.
    EdfLayout best;
    double bestError = INFINITY;
    std::int64_t longest = 0;
    for (auto samples = static_cast<std::int64_t>(rate); samples >= 1; --samples) {
        const std::int64_t ticks = std::llround(static_cast<double>(samples) / rate * 1e6) * kMicrosecond;
        const EdfLayout layout = layoutOf(samples, ticks, channels);
        if (layout.recordBytes > kEdfRecordLimit) {
            continue;
        }
        longest = std::max(longest, ticks);
        if (ticks < longest / 4) {
            break;
        }
        if (isSame(layout.rate(), rate)) {
            return layout;
        }
        const double error = std::abs(layout.rate() - rate);
        if (error < bestError) {
            best = layout;
            bestError = error;
        }
    }
    return best;
}

std::string edfNumber(double value, std::size_t width) {
    std::array<char, 400> digits;
    for (int decimals = static_cast<int>(width);; --decimals) {
        const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed,
                                          std::max(decimals, 0));
        std::string text(digits.data(), result.ptr);
        if (decimals > 0) {
            text.erase(text.find_last_not_of('0') + 1);
            if (text.back() == '.') {
                text.pop_back();
            }
        }
        if (text == "-0") {
            text.erase(0, 1);
        }
        if (text.size() <= width || decimals <= 0) {
            return text;
        }
    }
}

EdfRange edfRange(double gain) {
    EdfRange range;
    if (gain > 0 && std::isfinite(gain)) {
        range.minText = edfNumber(-32768 * gain);
        range.maxText = edfNumber(32767 * gain);
        if (range.minText.size() <= kEdfNumberWidth && range.maxText.size() <= kEdfNumberWidth) {
            std::from_chars(range.minText.data(), range.minText.data() + range.minText.size(), range.min);
            std::from_chars(range.maxText.data(), range.maxText.data() + range.maxText.size(), range.max);
            if (std::abs(range.gain() / gain - 1) <= 1e-3) {
                return range;
            }
        }
    }
    throw std::invalid_argument(
        "a gain must lie between 0.00001 and 300, so that the file's header can say it; choose "
        "another unit");
}

}  // namespace velmora::record
