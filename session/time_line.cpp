#include "session/time_line.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace velmora {
namespace {

constexpr int kRound = 256;                           // what a counter counts to
constexpr double kMostRounds = 4e6;                   // so that packets fit an int
constexpr std::int64_t kShortestRound = 250'000'000;  // nanoseconds, of one channel on a full line
constexpr std::int64_t kHalfRound = kRound / 2;
constexpr std::int64_t kHeldUpLongest = 1'000'000'000;  // nanoseconds that packets may be late
constexpr int kInStep = 2;                              // packets by which channels that go in step may differ
constexpr int kBehindMost = 16;                         // packets from before a damaged counter to the next that came
constexpr std::uint32_t kWatchedEnough = 8;             // packets until lateness says something
constexpr double kClockError = 0.02;                    // of headset and host against each other, with room
constexpr double kRoughly = 0.25;                       // of what should have come, which counters alone may exceed
constexpr double kJitter = 4e5;                         // nanoseconds that a packet may come before all others' time
constexpr std::int64_t kSilence = 64;                   // packets that must fail to come before rounds are thought of

}  // namespace

/// A packet that does not simply follow its forerunner.
Placement TimeLine::placeOther(Slot& slot, int channel, int samples, std::uint8_t counter, std::uint64_t content,
                               std::int64_t arrival, std::int64_t lastStall) {
    if (slot.epoch != epoch_) {
        const Placement placement = placeFirst(slot, samples, counter, content, arrival, lastStall);
        latest_ = channel;
        return placement;
    }
    setPeriod(slot, samples);
    const std::int64_t passed = arrival - slot.arrival;
    const bool silent = passed > slot.silence;
    const bool watched = lastStall <= slot.arrival;
    if (silent && !watched) {
        slot.fit.clear();  // the rounds that the stall may have cost would bend the line
    }
    const bool known = slot.period > 0 && slot.watched >= kWatchedEnough;
    double ahead = 0;     // packets that the clock says have passed
    double most = 0;      // that can have passed if the rate is right and no packet was held up
    double believed = 0;  // up to which a counter is believed all the same
    if (known) {
        const auto period = static_cast<double>(slot.period);
        ahead = static_cast<double>(passed + slot.late - std::min(slot.least, slot.leastBefore)) / period;
        most = 0.5 + kJitter / period + (1 + kClockError) * ahead;
        // Packets that were held up, at either end of those that it is found from, make a young rate rough.
        const std::int64_t bothEnds = 2 * kHeldUpLongest;
        const double rough =
            static_cast<double>(bothEnds) / static_cast<double>(std::max(slot.fit.age(arrival), bothEnds));
        believed = most + std::max(kRoughly, rough) * std::max(ahead - 1, 0.0);
    }
    int steps = static_cast<std::uint8_t>(counter - slot.counter);
    Placement placement;
    if (known && watched && silent) {
        int rounds = static_cast<int>(std::lround(std::clamp((ahead - steps) / kRound, 0.0, kMostRounds)));
        if (rounds > 0 && steps + rounds * kRound > most) {
            --rounds;
        }
        steps += rounds * kRound;
        placement.estimated = rounds > 0;
    }
    const bool asBefore = steps == 0 || (steps != 1 && slot.suspect && counter == slot.asCame);
    if (asBefore && content == slot.content) {
        placement.repeated = true;
        ++slot.counts.repeated;
        return placement;
    }
    // The counter goes on from before the jump that the last packet's made: that one was damaged.
    const int behind = static_cast<std::uint8_t>(counter - slot.counter + slot.jump);  // since before the jump
    const bool inTime = known && steps <= believed;
    const bool back = behind == 1 || (!inTime && behind > 0 && behind <= std::min(kBehindMost, slot.jump));
    if (slot.jump > 0 && slot.jump < kRound && back && !(known && silent)) {
        placement.damagedCounter = true;
        placement.lost = static_cast<std::uint32_t>(behind - 1);
        placement.sample = slot.sample + std::int64_t{behind - slot.jump} * slot.samples;
        if (!slot.suspect) {
            ++slot.counts.damagedCounters;
            slot.counts.lost -= static_cast<std::uint64_t>(slot.jump);
        }
        slot.counts.lost += placement.lost;
        slot.suspect = false;
        slot.late += passed - (behind - slot.jump) * slot.period;
        slot.jump = 0;
        latest_ = channel;
        accept(slot, placement.sample, samples, counter, content, arrival, lastStall);
        return placement;
    }
    const bool again = steps == 0;
    if (again) {
        steps = kRound;  // unless the counter is damaged, or the samples of a repeated packet are
    }
    bool byCounter = steps <= kRound;
    if (!known && steps != 1 && inStepWithLatest(slot, samples, counter)) {
        // Too early for the clock to tell whether a counter is right; the other channels can.
        const Slot& latest = slots_[static_cast<std::size_t>(latest_)];
        const std::int64_t sample = latest.sample + std::int64_t{aheadOf(latest, counter)} * samples;
        const int inStep = std::max(1, static_cast<int>((sample - slot.sample) / samples));
        byCounter = steps == inStep;
        steps = inStep;
    }
    if (known ? steps != 1 && steps > believed : again && passed < kShortestRound) {
        const int onwards = slot.suspect ? static_cast<std::uint8_t>(counter - slot.asCame) : 0;
        const std::int64_t few = known ? std::min(kHeldUpLongest / slot.period, kHalfRound) : 0;
        const bool borneOut = (onwards > 0 && onwards <= few) || (known && jumpsWithLatest(slot, samples, counter));
        const bool begunAnew = steps > ahead + believed + static_cast<double>(few);  // and not a loss
        if (!borneOut || begunAnew) {
            steps = 1;
            // Two counters that follow each other are right, and the one before them was not.
            placement.damagedCounter = onwards != 1;
        } else {
            // Two, in a row or side by side, are not damaged: packets were lost. The clock was misled by a headset that
            // catches up, having been held up when its rate was found.
            startWatch(slot);
        }
    }
    slot.suspect = placement.damagedCounter;
    slot.jump = byCounter ? steps - 1 : 0;
    if (placement.damagedCounter) {
        slot.jump = again ? 1 : 0;
        ++slot.counts.damagedCounters;
        slot.asCame = counter;
        counter = static_cast<std::uint8_t>(slot.counter + 1);
    }
    placement.lost = static_cast<std::uint32_t>(steps - 1);
    placement.sample = slot.sample + slot.samples + std::int64_t{steps - 1} * samples;
    slot.counts.lost += placement.lost;
    slot.late += passed - steps * slot.period;
    latest_ = channel;
    accept(slot, placement.sample, samples, counter, content, arrival, lastStall);
    return placement;
}

/// By how many packets a counter is ahead of a channel's last one.
int TimeLine::aheadOf(const Slot& slot, std::uint8_t counter) {
    return static_cast<std::int8_t>(counter - slot.counter);
}

/// Whether the counter of a channel's packet and that of the headset's last packet, on another channel, go together.
bool TimeLine::inStepWithLatest(const Slot& slot, int samples, std::uint8_t counter) const {
    if (latest_ < 0) {
        return false;
    }
    const Slot& latest = slots_[static_cast<std::size_t>(latest_)];
    return &latest != &slot && latest.epoch == epoch_ && latest.samples == samples &&
           std::abs(aheadOf(latest, counter)) <= kInStep;
}

/// Whether the counter of a channel's packet goes together with that of the headset's last packet, on another channel,
/// as it came, and would not if nothing were lost.
bool TimeLine::jumpsWithLatest(const Slot& slot, int samples, std::uint8_t counter) const {
    const Slot& latest = slots_[static_cast<std::size_t>(latest_)];
    const int came = latest.suspect ? latest.asCame : latest.counter;
    const auto apart = [came](int other) { return std::abs(static_cast<std::int8_t>(other - came)); };
    return &latest != &slot && latest.epoch == epoch_ && latest.samples == samples && apart(counter) <= kInStep &&
           apart(slot.counter + 1) > kInStep;
}

/// A channel's first packet, ever or since its headset connected again.
Placement TimeLine::placeFirst(Slot& slot, int samples, std::uint8_t counter, std::uint64_t content,
                               std::int64_t arrival, std::int64_t lastStall) {
    Placement placement;
    placement.first = true;
    bool byClock = false;
    const bool before = slot.arrival != kNone;
    if (latest_ >= 0) {
        const Slot& latest = slots_[static_cast<std::size_t>(latest_)];
        if (inStepWithLatest(slot, samples, counter)) {
            placement.sample = latest.sample + std::int64_t{aheadOf(latest, counter)} * samples;
        } else {
            // By the clock, in whole packets, so that channels which went in step still do.
            const double period = nanosPerSample(latest) * samples;
            const double packets = period > 0 ? static_cast<double>(arrival - latest.arrival) / period : 0;
            const std::int64_t least = latest.epoch == epoch_ ? 0 : 1;
            byClock = true;
            placement.sample = latest.sample + std::max<std::int64_t>(std::llround(packets), least) * samples;
        }
    }
    if (before) {
        const std::int64_t behind = slot.sample + slot.samples;
        placement.sample = std::max(placement.sample, behind);
        placement.lost =
            static_cast<std::uint32_t>(std::min<std::int64_t>((placement.sample - behind) / samples, INT32_MAX));
        slot.counts.lost += placement.lost;
    }
    placement.estimated = byClock || before;
    slot.epoch = epoch_;
    slot.suspect = false;
    slot.jump = 0;
    startWatch(slot);
    slot.leastSince = arrival;
    slot.fit.clear();
    setPeriod(slot, samples);
    accept(slot, placement.sample, samples, counter, content, arrival, lastStall);
    return placement;
}

void TimeLine::solve(Slot& slot) {
    if (slot.fit.solve(slot.arrival)) {
        slot.nanosPerSample = nanosPerSample_ = slot.fit.nanosPerSample();
        setPeriod(slot, slot.samples);
    }
}

void TimeLine::setPeriod(Slot& slot, int samples) {
    const bool wasKnown = slot.period > 0;
    slot.period = std::llround(nanosPerSample(slot) * samples);
    slot.silence = kSilence * slot.period;
    if (!wasKnown) {
        startWatch(slot);
    }
}

void TimeLine::reconnected() {
    ++epoch_;
}

double TimeLine::rate(int channel) const {
    const double nanos = slots_[static_cast<std::size_t>(channel)].fit.nanosPerSample();
    return nanos > 0 ? 1e9 / nanos : 0;
}

void TimeLine::Fit::begin(std::int64_t arrival, std::int64_t sample) {
    const auto first = spans_.begin();
    if (count_ == kSpans && length_ < kLongest) {
        for (std::size_t i = 0; i < kSpans; i += 2) {
            const Span& left = spans_[i];
            const Span& right = spans_[i + 1];
            spans_[i / 2] = {left.arrival, left.sample,
                             left.arrivals + right.arrivals + right.count * (right.arrival - left.arrival),
                             left.samples + right.samples + right.count * (right.sample - left.sample),
                             left.count + right.count};
        }
        count_ = kSpans / 2;
        length_ *= 2;
    }
    const auto last = first + static_cast<std::ptrdiff_t>(count_);
    static_assert(kSpans * kLongest > kMinute + kLongest, "there is always room for one more");
    const auto kept = std::find_if(first, last, [&](const Span& span) { return arrival - span.arrival <= kMinute; });
    count_ = static_cast<std::size_t>(std::copy(kept, last, first) - first);
    spans_[count_++] = {arrival, sample, 0, 0, 0};
}

bool TimeLine::Fit::solve(std::int64_t now) {
    solveAt_ = now + length_;
    // Relative to the newest span, so that nothing is lost to large numbers.
    const Span& origin = spans_[count_ - 1];
    struct Mean {
        double time, position, count;
    };
    std::array<Mean, kSpans> means;
    double count = 0;
    double time = 0;
    double position = 0;
    for (std::size_t i = 0; i < count_; ++i) {
        const Span& span = spans_[i];
        const auto inSpan = static_cast<double>(span.count);
        means[i] = {static_cast<double>(span.arrival - origin.arrival) + static_cast<double>(span.arrivals) / inSpan,
                    static_cast<double>(span.sample - origin.sample) + static_cast<double>(span.samples) / inSpan,
                    inSpan};
        count += inSpan;
        time += means[i].time * inSpan;
        position += means[i].position * inSpan;
    }
    time /= count;
    position /= count;
    double product = 0;
    double square = 0;
    for (std::size_t i = 0; i < count_; ++i) {
        const double fromMean = means[i].time - time;
        product += means[i].count * fromMean * (means[i].position - position);
        square += means[i].count * fromMean * fromMean;
    }
    if (square <= 0 || product <= 0) {
        return false;
    }
    nanosPerSample_ = square / product;
    return true;
}

}  // namespace velmora
