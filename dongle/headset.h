// One virtual headset: what it sends and when.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "dongle/dongle_settings.h"
#include "dongle/headset_frames.h"

namespace dongle {

/// What has become of a headset's frames since the dongle started.
struct HeadsetCounters {
    std::uint64_t rawProduced = 0;   ///< raw frames that the headset made
    std::uint64_t rawSent = 0;       ///< of these, put on the line at least once, damaged or not
    std::uint64_t rawLost = 0;       ///< lost by a fault setting
    std::uint64_t rawDropped = 0;    ///< dropped because the line could not carry them
    std::uint64_t rawRepeated = 0;   ///< sent a second time by a fault setting
    std::uint64_t rawCorrupted = 0;  ///< sent with a wrong byte
    std::uint64_t samples = 0;       ///< sample values in the frames produced, all channels together
    std::uint64_t battery = 0;       ///< battery frames sent
    std::uint64_t post = 0;          ///< post frames sent
    std::uint64_t responses = 0;     ///< response frames sent
};

enum class FrameKind { Raw, Battery, Post, Response };

struct HeadsetFrame {
    FrameKind kind = FrameKind::Raw;
    Bytes bytes;
};

class Headset {
  public:
    /// `place` is its place in the dongle's settings, from 0.
    Headset(HeadsetSettings settings, std::size_t place) : settings_(std::move(settings)), place_(place) {}

    /// Its own, as they are at present: the index may have changed.
    const HeadsetSettings& settings() const { return settings_; }
    std::size_t place() const { return place_; }
    const HeadsetCounters& counters() const { return counters_; }
    HeadsetCounters& counters() { return counters_; }

    /// In the group: it answers commands.
    bool connected() const { return connected_; }
    /// Connected, and its stream has begun.
    bool streams(Time now) const { return connected_ && now >= start_; }
    /// Counts its connections, so that something planned for one does not hit the next.
    std::uint64_t connection() const { return connection_; }

    /// Joins the group; frames begin at `streamStart`, with packet counters from 0.
    void connect(Time streamStart);
    void disconnect() { connected_ = false; }

    /// From `now` on; packet counters and the signal go on. 0: no raw frames.
    void setSampleRate(int samplesPerSecond, Time now);
    void setConnectFails(bool fails) { settings_.connectFails = fails; }
    /// Takes its other index, and keeps the present one for the next time.
    void swapIndex();

    /// The next frame that is due by `now`, false when there is none. `paced` false leaves out raw frames.
    bool takeDue(Time now, bool paced, HeadsetFrame& frame);
    /// The next raw frame, due or not.
    HeadsetFrame takeRaw();

  private:
    Time rawDue() const;

    HeadsetSettings settings_;
    std::size_t place_;
    HeadsetCounters counters_;
    bool connected_ = false;
    std::uint64_t connection_ = 0;
    Time start_{0};
    Time rawBase_{0};                 // where the count of raw frames for pacing begins
    std::uint64_t rawSinceBase_ = 0;  // raw frames since then
    std::uint64_t rawNumber_ = 0;     // raw frames since the stream began
    std::uint64_t batteryNumber_ = 0;
    std::uint64_t postNumber_ = 0;
};

}  // namespace dongle
