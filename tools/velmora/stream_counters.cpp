#include "velmora/stream_counters.h"

#include <algorithm>
#include <numeric>

namespace velmora {

namespace {

// Values of one raw packet, shared among its channels.
constexpr int kPacketSamples = 112;

}  // namespace

std::optional<RawLayout> layoutOf(int channel, int count) {
    if (count < 1 || channel >= kChannels || channel < -kChannels)
        return std::nullopt;
    if (channel >= 0)
        return RawLayout{channel, 1, count};
    // The zeros for a lost packet of n channels come as n times 112 values, although a real packet has room for 112 in
    // all. Taken literally, every loss would push the channels' sample clocks ahead.
    const int channels = -channel;
    const int perChannel = std::min(count, kPacketSamples) / channels;
    if (perChannel == 0)
        return std::nullopt;
    return RawLayout{0, channels, perChannel};
}

std::uint64_t DeviceCounters::allSamples() const {
    return std::accumulate(samples.begin(), samples.end(), std::uint64_t{0});
}

std::uint64_t StreamCounters::allSamples() const {
    return std::accumulate(devices.begin(), devices.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const DeviceCounters& device) { return sum + device.allSamples(); });
}

std::optional<RawLayout> StreamStatistics::addRaw(int device, int channel, std::span<const int> samples) {
    const auto layout = layoutOf(channel, static_cast<int>(samples.size()));
    if (!layout || device < 0 || device >= kDevices) {
        ++counters_.misfits;
        return std::nullopt;
    }
    const auto slot = static_cast<std::size_t>(device);
    DeviceCounters& counters = counters_.devices[slot];
    const bool zero = std::all_of(samples.begin(), samples.end(), [](int sample) { return sample == 0; });
    // A packet of several channels comes as one call per channel, each with its share of the samples, from channel 0.
    const bool laterPart = layout->firstChannel > 0 && layout->samplesPerChannel < kPacketSamples;
    if (!laterPart) {
        ++counters.packets;
        counters.zeroPackets += zero;
        zeroSoFar_[slot] = zero;
    } else if (!zero && zeroSoFar_[slot]) {
        --counters.zeroPackets;
        zeroSoFar_[slot] = false;
    }
    const int end = layout->firstChannel + layout->channels;
    for (int c = layout->firstChannel; c < end; ++c)
        counters.samples[static_cast<std::size_t>(c)] += static_cast<std::uint64_t>(layout->samplesPerChannel);
    return layout;
}

void StreamStatistics::addBattery(int device, unsigned level, unsigned value) {
    if (device < 0 || device >= kDevices) {
        ++counters_.misfits;
        return;
    }
    DeviceCounters& counters = counters_.devices[static_cast<std::size_t>(device)];
    ++counters.batteryReports;
    counters.batteryLevel = level;
    counters.batteryValue = value;
}

void RateWindow::add(double seconds, const StreamCounters& counters) {
    looks_.push_back({seconds, counters});
    while (looks_.size() > 2 && looks_[1].seconds <= seconds - kSeconds)
        looks_.pop_front();
}

DeviceRates RateWindow::rates(int device) const {
    DeviceRates rates;
    if (looks_.size() < 2 || looks_.back().seconds <= looks_.front().seconds)
        return rates;
    const double seconds = looks_.back().seconds - looks_.front().seconds;
    const DeviceCounters& before = looks_.front().counters.devices[static_cast<std::size_t>(device)];
    const DeviceCounters& now = looks_.back().counters.devices[static_cast<std::size_t>(device)];
    rates.packetsPerSecond = static_cast<double>(now.packets - before.packets) / seconds;
    for (std::size_t channel = 0; channel < now.samples.size(); ++channel) {
        if (now.samples[channel] == 0)
            continue;
        const double rate = static_cast<double>(now.samples[channel] - before.samples[channel]) / seconds;
        rates.slowest = rates.channels == 0 ? rate : std::min(rates.slowest, rate);
        rates.fastest = std::max(rates.fastest, rate);
        ++rates.channels;
    }
    return rates;
}

}  // namespace velmora
