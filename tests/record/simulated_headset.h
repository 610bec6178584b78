#pragma once

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "record/edf_file.h"
#include "velmora/velmora.h"

namespace test {

/// The records that the library delivers for a headset, and the check that a file has all of it.
struct SimulatedHeadset {
    int number = 0;
    int channels = 8;
    bool multi = false;
    double rate = 500;
    std::int64_t start = 1'000'000'000;  ///< when its first sample is made, nanoseconds
    double seconds = 10;
    double lossShare = 0;
    double jitter = 0.004;  ///< seconds by which packets come late at most
    std::uint32_t seed = 1;
    /// Whether a packet is lost for another reason: channel (0 for one of several) and its first sample's number.
    std::function<bool(int channel, std::int64_t sample)> lost = [](int, std::int64_t) { return false; };

    /// In order of arrival.
    std::vector<velmora_record> records() const;
    /// Never the value that stands for a lost sample.
    static std::int16_t value(int channel, std::int64_t sample);
};

/// An empty text, or what is wrong: every sample of the records that arrived by `until` has to stand in its place,
/// everything else has to be marked as bad for its channel, once, and nothing else may be. With `until` in the middle,
/// what came later may be there or not, and marked all the same, and marks may be there twice. `origin` is the sample
/// with which the file begins.
std::string difference(const EdfFile& file, const std::vector<velmora_record>& records, double rate,
                       std::int64_t origin = 0, std::int64_t until = INT64_MAX);

velmora_record eventRecord(int code, int headset, std::int64_t time);

}  // namespace test
