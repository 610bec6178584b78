// The recording of one headset.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "record/recording.h"
#include "record/sample_rate.h"
#include "record/track.h"

namespace velmora::record {

/// Keeps what arrives in the first seconds, and writes it anew with every commit as if all of its channels and its rate
/// had been known from the start. Then both are settled, and the files only grow.
class Take {
  public:
    /// A pause of the data after which another file begins.
    static constexpr std::int64_t kLongestGap = 600'000'000'000;  // nanoseconds

    /// `base` is the path without ending. The references must outlive this.
    Take(const Options& options, Headset headset, const Start& start, Files& files, std::string base,
         const Recording::Notice& notice);

    /// A record of this headset, or an event of the dongle.
    void take(const velmora_record& record);
    void mark(std::int64_t time, const std::string& text) { note(time, text); }
    void commit();
    void finish();

    const Headset& headset() const { return headset_; }
    HeadsetProgress progress() const;
    std::uint64_t bytes() const;
    /// Its part of NAME.json.
    std::string json() const;
    /// Why the user has to give the rate; empty if not.
    const std::string& unusualRate() const { return unusualRate_; }
    /// Throws FileError if the first file cannot be made because of what is there.
    void check() const;

  private:
    struct ChannelCounts {
        std::uint64_t packets = 0, lost = 0, dropped = 0;
    };
    /// Something of the first seconds.
    struct Arrival {
        velmora_record record{};
        std::int64_t noteSample = 0;
        std::string note;  // empty: `record` counts
    };
    struct Part {
        std::string path;
        std::int64_t utc = 0;
    };

    void raw(const velmora_record& record);
    void event(const velmora_record& record);
    void battery(const velmora_record& record);
    void note(std::int64_t time, const std::string& text);
    void apply(const Arrival& arrival);
    void settleFirstSeconds();
    void buildFirstSeconds();
    void beginPart(std::int64_t origin, std::int64_t utc);
    void endPart(std::int64_t gap);
    double presentRate() const;
    double measuredRate() const { return fit_.rate(); }
    std::int64_t utcOf(std::int64_t sample) const;
    std::string pathOf(std::size_t part) const;
    std::string label(std::size_t place, std::size_t channel) const;

    const Options& options_;
    const Headset headset_;
    const Start& start_;
    Files& files_;
    const std::string base_;
    const Recording::Notice& notice_;

    // The first seconds.
    std::vector<Arrival> arrivals_;
    bool settled_ = false;
    double rate_ = 0;
    std::string_view rateSource_ = "none";
    std::string unusualRate_;
    std::uint16_t channels_ = 0;  // a bit for each

    std::unique_ptr<TrackWriter> writer_;
    std::optional<Track> track_;
    std::vector<Part> parts_;
    std::uint64_t bytesBefore_ = 0;  // of finished files

    RateFit fit_;
    std::int64_t origin_ = 0;      // the least sample number
    std::int64_t firstTime_ = 0;   // of the first packet
    std::int64_t lastTime_ = 0;    // of the last one
    std::int64_t lastSample_ = 0;  // behind it
    std::array<ChannelCounts, kTrackChannels> counts_{};
    ChannelCounts sum_;
    std::uint16_t lateChannels_ = 0;  // told
    bool rateTold_ = false;
    bool connected_ = true;
    int batteryLevel_ = -1;
};

}  // namespace velmora::record
