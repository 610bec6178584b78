// Counting what arrives from the headsets. No clock, no library: calls go in, numbers come out.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>

namespace velmora {

inline constexpr int kDevices = 16;
inline constexpr int kChannels = 16;

/// How the samples of one raw data call lie: sample s of channel firstChannel + c at s * channels + c.
struct RawLayout {
    int firstChannel = 0;
    int channels = 0;
    int samplesPerChannel = 0;
};
/// Nothing for arguments that no packet has.
std::optional<RawLayout> layoutOf(int channel, int count);

struct DeviceCounters {
    std::uint64_t packets = 0;
    /// Packets in which every sample is 0: most likely substitutes of lost ones, but an idle input looks the same.
    std::uint64_t zeroPackets = 0;
    std::array<std::uint64_t, kChannels> samples{};
    std::uint64_t batteryReports = 0;
    /// Of the last report.
    unsigned batteryLevel = 0;
    unsigned batteryValue = 0;

    bool seen() const { return packets + batteryReports > 0; }
    std::uint64_t allSamples() const;
};

struct StreamCounters {
    std::array<DeviceCounters, kDevices> devices;
    /// Processed data is not assigned to headsets by the library.
    std::uint64_t postPackets = 0;
    /// Raw or battery calls with arguments outside what is agreed.
    std::uint64_t misfits = 0;

    std::uint64_t allSamples() const;
};

/// Counts. One thread at a time.
class StreamStatistics {
  public:
    /// A raw data call; returns its layout if it was counted.
    std::optional<RawLayout> addRaw(int device, int channel, std::span<const int> samples);
    void addPost() { ++counters_.postPackets; }
    void addBattery(int device, unsigned level, unsigned value);
    const StreamCounters& counters() const { return counters_; }

  private:
    StreamCounters counters_;
    // The packet whose channels are arriving one by one was zero so far and counts as such.
    std::array<bool, kDevices> zeroSoFar_{};
};

struct DeviceRates {
    double packetsPerSecond = 0;
    /// Channels that have ever brought samples.
    int channels = 0;
    /// Samples per second of the slowest and the fastest of them.
    double slowest = 0;
    double fastest = 0;
};

/// Rates over the last seconds. A packet fills at once what took a headset up to half a second, so that a window of one
/// second would show a steady stream as a jumpy one.
class RateWindow {
  public:
    static constexpr double kSeconds = 5;

    void add(double seconds, const StreamCounters& counters);
    DeviceRates rates(int device) const;

  private:
    struct Look {
        double seconds = 0;
        StreamCounters counters;
    };
    std::deque<Look> looks_;
};

}  // namespace velmora
