#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "protocol/headset_frames.h"

namespace velmora {

/// Where a packet stands on its headset's time line.
struct Placement {
    std::int64_t sample = 0;      ///< number of its first sample
    std::uint32_t lost = 0;       ///< packets of its channel lost directly before it
    bool repeated = false;        ///< it came before; everything else is of no use
    bool first = false;           ///< of its channel since the start or since the headset connected
    bool estimated = false;       ///< the counter alone does not tell: `sample` and `lost` are taken from the clock
    bool damagedCounter = false;  ///< the counter cannot be right; placed behind its forerunner. Or the forerunner's
                                  ///< was wrong, and had put it too far ahead: `sample` steps back
};

/// Tells raw packets with different samples apart.
inline std::uint64_t contentOf(const std::uint8_t* frame) {
    std::uint64_t content = 0;
    for (std::size_t i = 0; i < 2 * protocol::kSamples; i += sizeof content) {
        std::uint64_t word = 0;
        std::memcpy(&word, frame + protocol::kSampleOffset + i, sizeof word);
        content += word * (i + 1);
    }
    return content;
}

struct ChannelCounts {
    std::uint64_t packets = 0;  ///< repeated ones left out
    std::uint64_t lost = 0;
    std::uint64_t repeated = 0;
    std::uint64_t damagedCounters = 0;
};

/// Numbers the samples of one headset. Its first packet is at 0. First packets of other channels are placed by their
/// counters where these go in step, which they do when they differ by a packet or two. A packet's counter, 0 to 255,
/// leaves open how many rounds of 256 were lost before it: of what it allows the number nearest to clock and rate is
/// taken, rounds only when the channel fell silent while the line was really watched. A counter that would put the
/// packet far ahead of the clock is damaged, and the line goes on by one packet; unless the next one, or that of
/// another channel, is ahead as well and goes with it: then the clock was wrong. A damaged one that the clock lets
/// pass, because the packet was late, shows when the next counter goes on from before it: the line then goes back.
/// Counters that begin anew without a word of the dongle cannot be told from losses.
///
/// Times are nanoseconds of any one clock, in ascending order. Not thread-safe. An object is large (about 16 KiB).
class TimeLine {
  public:
    static constexpr int kMulti = protocol::kChannels;  ///< the channel of packets of several channels
    static constexpr int kSlots = protocol::kChannels + 1;

    /// Places the next packet.
    ///   channel     0 to 15, or kMulti
    ///   samples     of each channel in the packet, 1 to 112
    ///   content     contentOf() it: a packet with another content than its forerunner is no repetition of it
    ///   lastStall   when the reading thread last came back from a time in which it could not read
    Placement place(int channel, int samples, std::uint8_t counter, std::uint64_t content, std::int64_t arrival,
                    std::int64_t lastStall) {
        Slot& slot = slots_[static_cast<std::size_t>(channel)];
        const std::int64_t passed = arrival - slot.arrival;
        // Nearly every packet follows its forerunner in time.
        if (slot.epoch != epoch_ || slot.samples != samples || passed > slot.silence ||
            counter != static_cast<std::uint8_t>(slot.counter + 1)) [[unlikely]] {
            return placeOther(slot, channel, samples, counter, content, arrival, lastStall);
        }
        slot.suspect = false;
        slot.jump = 0;
        slot.late += passed - slot.period;
        latest_ = channel;
        accept(slot, slot.sample + samples, samples, counter, content, arrival, lastStall);
        Placement placement;
        placement.sample = slot.sample;
        return placement;
    }

    /// The headset has connected again: its counters begin anew, and the clock alone tells how much is missing.
    void reconnected();

    /// Everything begins anew, counts included.
    void restart() { *this = TimeLine(); }

    const ChannelCounts& counts(int channel) const { return slots_[static_cast<std::size_t>(channel)].counts; }

    /// Samples per second, by least squares over the last minute; 0 until there is enough.
    double rate(int channel) const;

  private:
    static constexpr std::int64_t kNone = -1;
    static constexpr std::int64_t kLeastSpan = 2'000'000'000;  // the least lateness of one to two of these counts
    static constexpr std::int64_t kCatchingUp = 100'000'000;   // after a stall, until all that came in it is read
    static constexpr std::int64_t kHeldUp = 50'000'000;        // later than this is late

    /// Least squares over arrivals and sample numbers, each span of time taken as its mean. Spans are short at first
    /// and grow until all of them hold a minute.
    class Fit {
      public:
        /// True when it is time to solve().
        bool add(std::int64_t arrival, std::int64_t sample) {
            if (count_ == 0 || arrival - spans_[count_ - 1].arrival >= length_) [[unlikely]] {
                begin(arrival, sample);
            }
            Span& span = spans_[count_ - 1];
            span.arrivals += arrival - span.arrival;
            span.samples += sample - span.sample;
            ++span.count;
            return arrival >= solveAt_ && count_ >= kEnough;
        }
        /// True when nanosPerSample() is fresh.
        bool solve(std::int64_t now);
        void clear() { *this = Fit(); }
        std::int64_t age(std::int64_t now) const { return count_ == 0 ? 0 : now - spans_[0].arrival; }
        double nanosPerSample() const { return nanosPerSample_; }  // 0 until there is enough

      private:
        struct Span {
            std::int64_t arrival, sample;    // of its first packet
            std::int64_t arrivals, samples;  // sums of all packets' differences to it
            std::int64_t count;
        };
        static constexpr std::size_t kSpans = 32;
        static constexpr std::size_t kEnough = 8;
        static constexpr std::int64_t kShortest = 62'500'000;
        static constexpr std::int64_t kLongest = 2'000'000'000;
        static constexpr std::int64_t kMinute = 60'000'000'000;

        void begin(std::int64_t arrival, std::int64_t sample);

        std::array<Span, kSpans> spans_;  // in order
        std::size_t count_ = 0;
        std::int64_t length_ = kShortest;
        std::int64_t solveAt_ = 0;
        double nanosPerSample_ = 0;
    };

    struct Slot {
        ChannelCounts counts;
        std::int64_t sample = 0;  // of the last packet
        std::int64_t arrival = kNone;
        int samples = 0;           // in it
        std::uint8_t counter = 0;  // as it should have been
        std::uint8_t asCame = 0;
        bool suspect = false;  // the last packet's counter was taken for damaged
        int jump = 0;          // packets that by its counter alone were lost before the last packet
        std::uint64_t content = 0;
        std::uint32_t epoch = 0;

        std::int64_t period = 0;   // of a packet, in nanoseconds; 0 while the rate is not known
        std::int64_t silence = 0;  // what is no silence of the channel, in nanoseconds

        // How late packets are, in nanoseconds on a scale that begins anywhere: its least value of the last seconds is
        // that of a packet which nothing held up.
        std::int64_t late = 0, least = 0, leastBefore = 0;
        std::int64_t leastSince = 0;
        std::uint32_t watched = 0;  // packets since the scale began and the rate is known
        double nanosPerSample = 0;
        Fit fit;
    };

    Placement placeOther(Slot& slot, int channel, int samples, std::uint8_t counter, std::uint64_t content,
                         std::int64_t arrival, std::int64_t lastStall);
    Placement placeFirst(Slot& slot, int samples, std::uint8_t counter, std::uint64_t content, std::int64_t arrival,
                         std::int64_t lastStall);
    static int aheadOf(const Slot& slot, std::uint8_t counter);
    bool inStepWithLatest(const Slot& slot, int samples, std::uint8_t counter) const;
    bool jumpsWithLatest(const Slot& slot, int samples, std::uint8_t counter) const;
    void accept(Slot& slot, std::int64_t sample, int samples, std::uint8_t counter, std::uint64_t content,
                std::int64_t arrival, std::int64_t lastStall) {
        ++slot.counts.packets;
        ++slot.watched;
        slot.sample = sample;
        slot.samples = samples;
        slot.counter = counter;
        slot.content = content;
        slot.arrival = arrival;
        slot.least = std::min(slot.least, slot.late);
        if (arrival - slot.leastSince > kLeastSpan) [[unlikely]] {
            slot.leastSince = arrival;
            slot.leastBefore = slot.least;
            slot.least = slot.late;
        }
        // What the system kept while nobody read says nothing of the rate, and would bend a young one for seconds; nor
        // does a packet that may stand in another's place.
        const bool heldUp =
            arrival - lastStall < kCatchingUp && slot.late - std::min(slot.least, slot.leastBefore) > kHeldUp;
        if (!heldUp && !slot.suspect && slot.fit.add(arrival, sample)) [[unlikely]] {
            solve(slot);
        }
    }
    void solve(Slot& slot);
    void setPeriod(Slot& slot, int samples);
    static void startWatch(Slot& slot) {
        slot.late = slot.least = slot.leastBefore = 0;
        slot.watched = 0;
    }
    double nanosPerSample(const Slot& slot) const {
        return slot.nanosPerSample > 0 ? slot.nanosPerSample : nanosPerSample_;
    }

    std::array<Slot, kSlots> slots_;
    int latest_ = -1;            // the slot of the last packet
    double nanosPerSample_ = 0;  // of whichever channel found it last
    std::uint32_t epoch_ = 1;    // counts connections
};

}  // namespace velmora
