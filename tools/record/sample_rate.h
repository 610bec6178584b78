// How fast a headset really samples.
#pragma once

#include <cstdint>
#include <optional>

namespace velmora::record {

/// A measured rate counts as a usual one when it is this close, and as another one than the file's when it is not.
inline constexpr double kRateTolerance = 0.005;

/// What a measurement of a second or two can be wrong by, on a busy machine.
inline constexpr double kEarlyRateTolerance = 0.1;

/// The usual rate that is nearest to a measured one, if it is within the tolerance.
std::optional<double> usualRate(double measured, double tolerance = kRateTolerance);

/// Least squares over all packets: their arrival and the number of samples made until then.
class RateFit {
  public:
    /// `time` in nanoseconds, `sample` the number behind the packet's last one.
    void add(std::int64_t time, std::int64_t sample);
    /// Samples per second; 0 until packets arrived at two times.
    double rate() const { return variance_ > 0 ? covariance_ / variance_ : 0; }

  private:
    std::int64_t firstTime_ = 0, firstSample_ = 0;
    double count_ = 0;
    double meanTime_ = 0, meanSample_ = 0;  // seconds and samples since the first
    double variance_ = 0, covariance_ = 0;
};

}  // namespace velmora::record
