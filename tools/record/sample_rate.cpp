#include "record/sample_rate.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace velmora::record {

std::optional<double> usualRate(double measured, double tolerance) {
    // Round ones and powers of two; any two of them are more than two of the finer tolerances apart.
    static constexpr std::array<double, 26> kUsual{50,   64,   100,  125,  128,  200,  250,  256,  300,
                                                   400,  500,  512,  600,  800,  1000, 1024, 1200, 1600,
                                                   2000, 2048, 2400, 4000, 4096, 8000, 8192, 10000};
    const double usual = *std::min_element(kUsual.begin(), kUsual.end(), [measured](double a, double b) {
        return std::abs(measured - a) < std::abs(measured - b);
    });
    if (std::abs(measured - usual) <= tolerance * usual) {
        return usual;
    }
    return std::nullopt;
}

void RateFit::add(std::int64_t time, std::int64_t sample) {
    if (count_ == 0) {
        firstTime_ = time;
        firstSample_ = sample;
    }
    const double x = static_cast<double>(time - firstTime_) / 1e9;
    const auto y = static_cast<double>(sample - firstSample_);
    ++count_;
    // Differences to running means keep the sums small however long it takes.
    const double toMean = x - meanTime_;
    meanTime_ += toMean / count_;
    meanSample_ += (y - meanSample_) / count_;
    variance_ += toMean * (x - meanTime_);
    covariance_ += toMean * (y - meanSample_);
}

}  // namespace velmora::record
