#include "session/time_line.h"

#include <cmath>
#include <tuple>

#include "support/testing.h"

namespace test {
namespace {

using velmora::Placement;
using velmora::TimeLine;

constexpr std::int64_t kSecond = 1'000'000'000;

std::int64_t nanos(double seconds) {
    return static_cast<std::int64_t>(seconds * 1e9);
}

/// A headset on virtual time. All its channels send a packet each round; the packet's counter is that of the round.
struct Headset {
    double packetsPerSecond;  // of each channel, by the headset's own clock
    int jitterMs = 0;         // packets come up to that much late
    int samples = 112;

    TimeLine line{};
    std::int64_t now = 0, lastStall = -1;
    int round = 0;
    unsigned noise = 1;

    static std::uint64_t contentOf(int number) { return static_cast<std::uint64_t>(number) * 7; }
    std::int64_t arrivalOf(int number) {
        noise = noise * 1664525u + 1013904223u;
        const std::int64_t late =
            jitterMs == 0 ? 0 : std::int64_t{(noise >> 8) % static_cast<unsigned>(jitterMs * 1000)} * 1000;
        return now = std::max(now, nanos(number / packetsPerSecond) + late);
    }
    Placement packet(int channel, int flippedBits = 0) {
        const auto counter = static_cast<std::uint8_t>((round + 250) ^ flippedBits);
        return line.place(channel, samples, counter, contentOf(round), arrivalOf(round), lastStall);
    }
    void rounds(int count) {
        for (; count > 0; --count, ++round) {
            const Placement placement = packet(0);
            ASSERT_EQ(placement.sample, std::int64_t{round} * samples) << "round " << round;
            ASSERT_EQ(placement.lost, 0u);
            ASSERT_FALSE(placement.repeated || placement.estimated || placement.damagedCounter);
        }
    }
};

struct Rate {
    const char* name;
    double packetsPerSecond;
    int jitterMs;
};
// The slowest that headsets are sold with, the fastest, and one headset's one channel on a full line.
constexpr Rate kRates[] = {{"slow", 2.2, 15}, {"usual", 17.9, 15}, {"fast", 35.7, 20}, {"full line", 833, 4}};

TEST(TimeLine, CountsLossesOfAnyLength) {
    for (const Rate& rate : kRates) {
        for (const double clockError : {-0.01, 0.0, 0.01}) {
            for (const int lost : {1, 2, 3, 127, 128, 254, 255, 256, 257, 511, 512, 10'000}) {
                SCOPED_TRACE(testing::Message() << rate.name << ", " << lost << " lost, clock " << clockError);
                Headset headset{rate.packetsPerSecond * (1 + clockError), rate.jitterMs};
                headset.rounds(1000);
                headset.round += lost;
                const Placement placement = headset.packet(0);
                EXPECT_EQ(placement.sample, std::int64_t{headset.round} * 112);
                EXPECT_EQ(placement.lost, static_cast<unsigned>(lost));
                EXPECT_EQ(placement.estimated, lost >= 255);
                EXPECT_FALSE(placement.damagedCounter || placement.repeated);
                ++headset.round;
                headset.rounds(1000);
                const auto counts = headset.line.counts(0);
                EXPECT_TRUE(counts.lost == static_cast<unsigned>(lost) && counts.packets == 2001);
                EXPECT_NEAR(headset.line.rate(0) / headset.packetsPerSecond / 112, 1, 1e-3);
            }
        }
    }
}

TEST(TimeLine, CountsWhatIsLostInAPauseOfAnotherLength) {
    const struct {
        const char* what;
        int lost;
        double rounds;  // that the clock tells
    } cases[] = {{"the clock drifts by 1 % at the loss, so that what was learnt of the rate is off", 10'000, 10'101},
                 {"the same, the other way", 10'000, 9'901},
                 {"the nearest number of rounds would put the packet ahead of the clock: one less is right", 43, 190}};
    for (const auto& c : cases) {
        Headset headset{35.7};
        headset.rounds(1000);
        const auto counter = static_cast<std::uint8_t>(headset.round + 250 + c.lost);
        const Placement placement = headset.line.place(0, 112, counter, 1, headset.now + nanos(c.rounds / 35.7), -1);
        EXPECT_EQ(placement.lost, static_cast<unsigned>(c.lost)) << c.what;
        EXPECT_FALSE(placement.damagedCounter) << c.what;
    }
}

TEST(TimeLine, TheRateIsThatOfTheLastMinute) {
    TimeLine line;
    int packet = 0;
    std::int64_t now = 0;
    const auto run = [&](double seconds, double packetsPerSecond) {
        for (const std::int64_t end = now + nanos(seconds); now < end; ++packet, now += nanos(1 / packetsPerSecond)) {
            line.place(0, 112, static_cast<std::uint8_t>(packet), 0, now, -1);
        }
        return line.rate(0) / 112;
    };
    EXPECT_EQ(run(0.2, 100), 0) << "not yet enough";
    EXPECT_NEAR(run(100, 100), 100, 0.01);
    const double between = run(25, 101);
    EXPECT_GT(between, 100.1);
    EXPECT_LT(between, 100.6);
    EXPECT_NEAR(run(65, 101), 101, 0.01);
}

TEST(TimeLine, AFlippedCounterBitDoesNotMoveTheLine) {
    for (const Rate& rate : kRates) {
        for (const int jitterMs : {0, rate.jitterMs}) {
            for (int bit = 0; bit < 8; ++bit) {
                for (int start = 1000; start < 1012; ++start) {
                    SCOPED_TRACE(testing::Message()
                                 << rate.name << ", jitter " << jitterMs << ", bit " << bit << ", round " << start);
                    Headset headset{rate.packetsPerSecond, jitterMs};
                    headset.rounds(start);
                    const Placement damaged = headset.packet(0, 1 << bit);
                    EXPECT_FALSE(damaged.repeated);
                    ++headset.round;
                    // A packet that came late can look as if some had been lost. The next one then takes that back.
                    const Placement next = headset.packet(0);
                    ASSERT_EQ(next.sample, std::int64_t{headset.round} * 112);
                    EXPECT_FALSE(next.repeated);
                    EXPECT_NE(damaged.damagedCounter, next.damagedCounter);
                    EXPECT_TRUE(damaged.damagedCounter ? damaged.sample == next.sample - 112 : jitterMs > 0);
                    ++headset.round;
                    headset.rounds(600);
                    EXPECT_EQ(headset.line.counts(0).damagedCounters, 1u);
                    EXPECT_EQ(headset.line.counts(0).lost + headset.line.counts(0).repeated, 0u);
                }
            }
        }
    }
}

TEST(TimeLine, ADamagedFirstCounterIsPutRightByThoseBehind) {
    Headset headset{35.7};
    EXPECT_EQ(headset.packet(0).sample, 0);
    EXPECT_EQ(headset.packet(3, 0x40).sample, 0) << "by the clock, not by its counter";
    for (headset.round = 1; headset.round < 400; ++headset.round) {
        const Placement other = headset.packet(0);
        const Placement placement = headset.packet(3);
        if (headset.round > 20) {
            ASSERT_EQ(placement.sample, other.sample);
            ASSERT_EQ(placement.lost, 0u);
        }
    }
}

// What was believed only because another channel's counter was near it is taken back like all else, also when the
// packet behind it is lost.
TEST(TimeLine, ADamagedCounterIsTakenBackAlsoBeforeTheRateIsKnownAndBehindALoss) {
    for (const int round : {3, 200}) {
        for (int flipped = 1; flipped < 256; ++flipped) {
            for (const int lost : {0, 1, 3}) {
                SCOPED_TRACE(testing::Message()
                             << "round " << round << ", bits " << flipped << ", " << lost << " lost");
                Headset headset{8.9};
                for (; headset.round < round + 100; ++headset.round) {
                    headset.packet(0);
                    if (headset.round > round && headset.round <= round + lost) {
                        continue;
                    }
                    const Placement placement = headset.packet(1, headset.round == round ? flipped : 0);
                    if (headset.round > round + lost) {
                        ASSERT_EQ(placement.sample, std::int64_t{headset.round} * 112);
                    }
                }
                EXPECT_EQ(headset.line.counts(1).lost, static_cast<unsigned>(lost));
            }
        }
    }
}

/// A host that is stopped reads what the system kept, all at once, and has lost the rest: how much only the counter
/// tells, without rounds.
TEST(TimeLine, AStoppedHostAddsNoRounds) {
    for (const auto& [packetsPerSecond, kept, lost] : {std::tuple{35.7, 107, 0},
                                                       {35.7, 60, 47},
                                                       {200., 100, 500},
                                                       {833., 17, 2482},
                                                       {833., 17, 255},
                                                       {200., 20, 511}}) {
        SCOPED_TRACE(testing::Message() << packetsPerSecond << " packets a second, " << lost << " lost");
        Headset headset{packetsPerSecond};
        headset.rounds(2000);
        headset.lastStall = headset.now += 3 * kSecond;
        headset.rounds(kept);
        headset.round += lost;
        std::int64_t line = (std::int64_t{headset.round} - lost + lost % 256) * 112;
        for (int i = 0; i < 2000; ++i, ++headset.round, line += 112) {
            const Placement placement = headset.packet(0);
            ASSERT_EQ(placement.sample, line) << i;
            ASSERT_FALSE(placement.damagedCounter || placement.estimated);
        }
        EXPECT_EQ(headset.line.counts(0).lost, static_cast<unsigned>(lost % 256));
        // What the stall hid does not confuse a later loss.
        headset.round += 1000;
        EXPECT_EQ(headset.packet(0).lost, 1000u);
    }
}

// Neither does a rate that is seconds old, and would be bent by what comes too late, deny what was lost, nor a packet
// that was held up when none seemed to be.
TEST(TimeLine, AStoppedHostKeepsTheCountOfARestlessLine) {
    for (const auto& [packetsPerSecond, jitterMs] : {std::pair{2.2, 150}, {8.9, 60}, {17.9, 40}, {35.7, 20}}) {
        for (const double before : {1.5, 3.0, 8.0, 20.0}) {
            for (int start = 0; start < 20; ++start) {
                SCOPED_TRACE(testing::Message() << packetsPerSecond << ", " << before << " s, " << start);
                Headset headset{packetsPerSecond, jitterMs};
                headset.noise = static_cast<unsigned>(start);
                headset.rounds(static_cast<int>(before * packetsPerSecond) + 10);
                headset.lastStall = headset.now += 5 * kSecond;
                headset.rounds(start % 4);  // what the system kept
                headset.round += static_cast<int>(5 * packetsPerSecond) - start % 4;
                EXPECT_EQ(headset.packet(0).sample, std::int64_t{headset.round} * 112);
            }
        }
    }
}

/// One round of a headset that was held up when its rate is found. It seems in time for as long as it catches up, and
/// what it loses seems too early. How many packets stand too early, which they have to say.
int lateRound(Headset& headset, int channels) {
    headset.now += headset.round == 20 ? kSecond * 4 / 5 : headset.round > 20 ? nanos(0.86 / 71.4) : 0;
    int doubted = 0;
    for (int channel = 0; channel < channels; ++channel) {
        const Placement placement = headset.packet(channel);
        EXPECT_TRUE(placement.sample == headset.round * 112 || placement.damagedCounter) << headset.round;
        doubted += placement.damagedCounter;
    }
    ++headset.round;
    return doubted;
}

TEST(TimeLine, AHeadsetThatCatchesUpLosesNoCount) {
    for (const int every : {2, 3, 5, 17}) {
        Headset headset{71.4};
        for (int doubted = 0; headset.round < 600;) {
            if (headset.round > 20 && headset.round % every == 0) {
                ++headset.round;
            }
            const int before = std::exchange(doubted, lateRound(headset, 1));
            ASSERT_LE(before + doubted, 1) << "every " << every << ", round " << headset.round;
        }
        EXPECT_EQ(headset.line.counts(0).lost, static_cast<unsigned>(599 / every - 20 / every));
    }
}

TEST(TimeLine, OtherChannelsBearOutWhatTheClockDoubts) {
    Headset headset{71.4};
    while (headset.round < 90) {
        ASSERT_EQ(lateRound(headset, 4), 0);
    }
    headset.round += 15;
    EXPECT_EQ(lateRound(headset, 4), 1);
}

TEST(TimeLine, AStartWithinARoundPutsAllChannelsOnOneLine) {
    for (int first = 0; first < 8; ++first) {
        Headset headset{35.7, 15};
        for (int packet = first; packet < 400; ++packet) {
            headset.round = packet / 8;
            const Placement placement = headset.packet(packet % 8);
            EXPECT_EQ(placement.sample, packet / 8 * 112) << "first " << first << ", channel " << packet % 8;
            EXPECT_EQ(placement.first, packet < first + 8);
            EXPECT_EQ(placement.lost, 0u);
        }
    }
    // One that comes late goes by the channels that still send, not by one that has fallen silent.
    Headset late{35.7};
    for (; late.round < 50; ++late.round) {
        late.packet(0);
        late.packet(1);
    }
    for (; late.round < 100; ++late.round) {
        late.packet(0);
    }
    EXPECT_EQ(late.packet(2).sample, 100 * 112);
    // One that is a round behind comes before the zero; one that does not go in step is placed by the clock.
    TimeLine line;
    EXPECT_EQ(line.place(5, 112, 100, 0, 0, -1).sample, 0);
    EXPECT_EQ(line.place(6, 112, 99, 0, 10, -1).sample, -112);
    EXPECT_EQ(line.place(7, 112, 30, 0, 20, -1).sample, -112) << "where its neighbour is";
    EXPECT_TRUE(line.place(7, 112, 30, 0, 20, -1).repeated);
    EXPECT_EQ(line.place(TimeLine::kMulti, 16, 100, 0, 30, -1).sample, -112);
}

TEST(TimeLine, AHeadsetThatComesBackGoesOnByTheClock) {
    TimeLine atOnce;
    atOnce.place(0, 112, 5, 0, 0, -1);
    atOnce.reconnected();
    EXPECT_EQ(atOnce.place(1, 112, 77, 0, 10, -1).sample, 112) << "a channel that nobody has seen before";
    EXPECT_EQ(atOnce.place(0, 112, 77, 0, 20, -1).sample, 112);
    for (const double away : {0.01, 1.0, 60.0, 3600.0}) {
        SCOPED_TRACE(away);
        Headset headset{17.9};
        for (headset.round = 0; headset.round < 500; ++headset.round) {
            headset.packet(0);
            headset.packet(1);
        }
        const std::int64_t leftAt = headset.now;
        headset.line.reconnected();
        const auto counter = [](int i) { return static_cast<std::uint8_t>(i + 7); };
        const auto arrival = [&](int i) { return leftAt + nanos(away + i / 17.9); };
        const std::int64_t missing = std::max(std::lround(away * 17.9) - 1, 0l);
        const Placement back = headset.line.place(1, 112, counter(0), 0, arrival(0), -1);
        EXPECT_EQ(back.sample, (499 + 1 + missing) * 112);
        EXPECT_EQ(back.lost, missing);
        EXPECT_TRUE(back.estimated && back.first);
        const Placement other = headset.line.place(0, 112, counter(0), 0, arrival(0), -1);
        EXPECT_EQ(other.sample, back.sample);
        EXPECT_TRUE(other.estimated && other.first);
        for (int i = 1; i < 300; ++i) {
            const Placement placement = headset.line.place(0, 112, counter(i), 0, arrival(i), -1);
            ASSERT_EQ(placement.sample, back.sample + i * 112);
            ASSERT_FALSE(placement.estimated || placement.first || placement.lost > 0);
        }
    }
}

TEST(TimeLine, ARepeatedPacketIsToldFromALostRound) {
    Headset young{35.7};
    young.rounds(5);
    young.round += 255;
    EXPECT_EQ(young.packet(0).lost, 255u);
    EXPECT_TRUE(young.packet(0).repeated);
    Headset headset{35.7};
    headset.rounds(300);
    --headset.round;
    EXPECT_TRUE(headset.packet(0).repeated);
    ++headset.round;
    headset.rounds(300);
    const auto counts = headset.line.counts(0);
    EXPECT_EQ(counts.repeated, 1u);
    EXPECT_EQ(counts.packets, 600u);
    // With damaged samples it cannot be told. It does not move the line.
    for (Headset& damaged : std::vector<Headset>{headset, {35.7}}) {
        damaged.rounds(damaged.round == 0 ? 3 : 0);
        damaged.line.place(0, 112, static_cast<std::uint8_t>(damaged.round + 249), 1, damaged.now, -1);
        EXPECT_EQ(damaged.packet(0).sample, damaged.round * 112);
        ++damaged.round;
        damaged.rounds(10);
        EXPECT_EQ(damaged.line.counts(0).lost, 0u);
    }
    headset.line.restart();
    EXPECT_EQ(headset.line.counts(0).packets, 0u);
    EXPECT_EQ(headset.packet(2).sample, 0);
}

TEST(TimeLine, PacketsOfSeveralChannelsCountInTheirOwnSamples) {
    Headset headset{35.7, 0, 112 / 3};
    for (; headset.round < 500; ++headset.round) {
        ASSERT_EQ(headset.packet(TimeLine::kMulti).sample, headset.round * 37);
    }
    headset.round += 300;
    const Placement placement = headset.packet(TimeLine::kMulti);
    EXPECT_EQ(placement.sample, headset.round * 37);
    EXPECT_EQ(placement.lost, 300u);
    EXPECT_NEAR(headset.line.rate(TimeLine::kMulti), 35.7 * 37, 1);
    const auto next = static_cast<std::uint8_t>(headset.round + 251);
    EXPECT_EQ(headset.line.place(TimeLine::kMulti, 28, next, 0, headset.now + nanos(1 / 35.7), -1).sample,
              placement.sample + 37)
        << "as many further as the packet before has samples";
}

}  // namespace
}  // namespace test
