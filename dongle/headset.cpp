#include "dongle/headset.h"

#include <algorithm>
#include <utility>

namespace dongle {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

}  // namespace

void Headset::connect(Time streamStart) {
    connected_ = true;
    ++connection_;
    start_ = streamStart;
    rawBase_ = streamStart;
    rawSinceBase_ = 0;
    rawNumber_ = 0;
    batteryNumber_ = 0;
    postNumber_ = 0;
}

void Headset::setSampleRate(int samplesPerSecond, Time now) {
    settings_.sampleRate = samplesPerSecond;
    rawBase_ = std::max(now, start_);
    rawSinceBase_ = 0;
}

void Headset::swapIndex() {
    if (settings_.rejoinIndex) {
        std::swap(settings_.index, *settings_.rejoinIndex);
    }
}

Time Headset::rawDue() const {
    if (settings_.sampleRate == 0) {
        return Time::max();
    }
    // A frame is due when its last sample has been taken. Counted from the base in whole numbers, so that no rounding
    // adds up. Single-channel frames of the channels follow each other evenly, because channels take their turn.
    const std::int64_t samplesPerFrame = settings_.packing == Packing::Multi
                                             ? std::int64_t{kSamplesPerFrame / settings_.channels} * settings_.channels
                                             : std::int64_t{kSamplesPerFrame};
    const auto samples = samplesPerFrame * static_cast<std::int64_t>(rawSinceBase_ + 1);
    const std::int64_t perSecond = std::int64_t{settings_.sampleRate} * settings_.channels;
    const std::int64_t seconds = samples / perSecond;
    const std::int64_t rest = samples % perSecond * kNanosecondsPerSecond / perSecond;
    return rawBase_ + Time(seconds * kNanosecondsPerSecond + rest);
}

bool Headset::takeDue(Time now, bool paced, HeadsetFrame& frame) {
    if (!streams(now)) {
        return false;
    }
    const auto due = [&](Time interval, std::uint64_t number) {
        return interval > Time{0} && start_ + interval * static_cast<std::int64_t>(number) <= now;
    };
    if (due(settings_.batteryInterval, batteryNumber_)) {
        ++batteryNumber_;
        frame = {FrameKind::Battery, batteryFrame(settings_.battery, settings_.batteryExtra)};
        return true;
    }
    if (due(settings_.postInterval, postNumber_)) {
        frame = {FrameKind::Post, postFrame(postValues(settings_.index, postNumber_++))};
        return true;
    }
    if (paced && rawDue() <= now) {
        frame = takeRaw();
        return true;
    }
    return false;
}

/// Packet counters begin anew with each connection. The signal goes on as a body's does: no connection begins with the
/// same packet as another.
HeadsetFrame Headset::takeRaw() {
    const int channels = settings_.channels;
    std::array<std::int16_t, kSamplesPerFrame> samples{};
    HeadsetFrame frame;
    std::size_t count = 0;
    if (settings_.packing == Packing::Multi) {
        const int perChannel = kSamplesPerFrame / channels;
        const std::uint64_t first = counters_.rawProduced * static_cast<std::uint64_t>(perChannel);
        for (int i = 0; i < perChannel; ++i) {
            for (int channel = 0; channel < channels; ++channel) {
                samples[count++] = sampleValue(settings_.index, channel, first + static_cast<std::uint64_t>(i));
            }
        }
        frame.bytes = multiChannelFrame(channels, samples, static_cast<std::uint8_t>(rawNumber_ & 0xFF));
    } else {
        const int channel = static_cast<int>(rawNumber_ % static_cast<std::uint64_t>(channels));
        const std::uint64_t first = counters_.rawProduced / static_cast<std::uint64_t>(channels) * kSamplesPerFrame;
        for (count = 0; count < samples.size(); ++count) {
            samples[count] = sampleValue(settings_.index, channel, first + count);
        }
        const std::uint64_t round = rawNumber_ / static_cast<std::uint64_t>(channels);
        frame.bytes = singleChannelFrame(channel, samples, static_cast<std::uint8_t>(round & 0xFF));
    }
    ++rawNumber_;
    ++rawSinceBase_;
    ++counters_.rawProduced;
    counters_.samples += count;
    return frame;
}

}  // namespace dongle
