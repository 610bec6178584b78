// How data and texts are spread over the line, and the damage on the way.

#include "dongle_test_support.h"

namespace dongle::test {

constexpr std::size_t kFrame = 242;  // "AT+DAT1:230#" and the raw frame

/// Ten seconds of a headset that sends 160 frames a second.
struct Stream : Bench {
    explicit Stream(const FaultSettings& faults) : Bench(rawOnly(1, 2240)) {
        engine.setFaults(faults);
        connect(1);
        bytes = pass(10s);
    }
    /// The frames of `other` stand in this one, whole and in order.
    bool holds(const Stream& other) const {
        std::size_t at = 0;
        for (std::size_t i = 0; i < other.bytes.size() && at != bytes.npos; i += kFrame) {
            at = bytes.find(other.bytes.substr(i, kFrame), i == 0 ? 0 : at + kFrame);
        }
        return at != bytes.npos;
    }

    std::string bytes;
    const HeadsetCounters& counters = engine.headsetCounters(1);
};

TEST(DataLine, EveryFaultDoesItsDamageAndIsCounted) {
    // A quarter of the 1,600 frames, with room for chance, and what the dongle itself has counted.
    const auto expectQuarter = [](std::uint64_t count, std::uint64_t counted) {
        EXPECT_TRUE(count == counted && count >= 320 && count <= 480) << count << " " << counted;
    };
    const Stream clean({});
    for (const FaultSettings& faults : {FaultSettings{.loseEvery = 4}, FaultSettings{.lose = 0.25}}) {
        const Stream lossy(faults);
        expectQuarter((clean.bytes.size() - lossy.bytes.size()) / kFrame, lossy.counters.rawLost);
        EXPECT_EQ(readFrames(lossy.bytes).size(), lossy.counters.rawSent);
        EXPECT_TRUE(clean.holds(lossy));
    }
    for (const FaultSettings& faults : {FaultSettings{.repeat = 0.25}, {.stray = 0.25, .strayMost = 1}}) {
        const Stream longer(faults);
        expectQuarter((longer.bytes.size() - clean.bytes.size()) / (faults.repeat > 0 ? kFrame : 1),
                      longer.counters.rawRepeated + longer.engine.counters().line.strayBytes);
        EXPECT_TRUE(longer.holds(clean));
    }
    const Stream corrupting({.corrupt = 0.25}), splitting({.split = 0.25});
    std::uint64_t wrong = 0;
    ASSERT_EQ(corrupting.bytes.size(), clean.bytes.size());
    for (std::size_t i = 0; i < clean.bytes.size(); ++i) {
        wrong += clean.bytes[i] != corrupting.bytes[i] ? 1U : 0U;
    }
    expectQuarter(wrong, corrupting.counters.rawCorrupted);
    EXPECT_GT(splitting.writes.size(), clean.writes.size() + 320);
    EXPECT_EQ(splitting.bytes, clean.bytes);

    // The seed decides, and nothing else.
    EXPECT_EQ(Stream({.seed = 5, .lose = 0.1}).bytes, Stream({.seed = 5, .lose = 0.1}).bytes);
    EXPECT_NE(Stream({.seed = 5, .lose = 0.1}).bytes, Stream({.seed = 6, .lose = 0.1}).bytes);
}

TEST(DataLine, KeepsToItsRateInWholeFramesAndBoundedBursts) {
    for (const std::uint32_t rate : {2'000U, 200'000U}) {
        Settings settings = rawOnly(5);
        // The slow line carries less than the headsets have.
        (rate == 2'000 ? settings.line.bytesPerSecond : settings.line.fillBytesPerSecond) = rate;
        settings.line.gaps = rate == 2'000;
        Bench bench(settings);
        // Time in which nothing was sent is not made up for.
        bench.pass(60s);
        bench.connect(5);
        bench.pass(20s);
        std::size_t bytes = 0;
        for (const Write& write : bench.writes) {
            bytes += write.bytes.size();
            EXPECT_TRUE(write.bytes.size() <= kLargestBurst && write.bytes.size() % kFrame == 0);
            EXPECT_EQ(write.gap > 10ms, settings.line.gaps);
        }
        EXPECT_NEAR(static_cast<double>(bytes), 20.0 * rate, 0.002 * 20.0 * rate + kLargestBurst);
        EXPECT_GT(bench.engine.headsetCounters(5).rawSent, bytes / kFrame / 6) << "none starves";
        EXPECT_EQ(bench.engine.headsetCounters(1).rawDropped > 0, rate == 2'000);
    }
}

}  // namespace dongle::test
