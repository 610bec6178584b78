#include "dongle/dongle_engine.h"

#include "dongle_test_support.h"

namespace dongle::test {

TEST(Engine, AnswersRequestsWithTextsInWritesOfTheirOwnWhenTheyAreDue) {
    const std::vector<std::pair<std::string_view, std::string>> cases{
        {"AT+WHAT\0AT+\0xyz\0AT+PING"sv, "AT+OK"},
        {"AT+SCAN\0AT+SCAN\0"sv, "Start scan\n|A1B2C3D4E501,1 XAI-01\n|A1B2C3D4E502,1 XAI-02\n|Finish scan\r\n"},
        {"AT+GRPCONN=FFFFFFFFFFFF;A1B2;A1B2C3D4E501x;;A1B2C3D4E502-1;A1B2C3D4E50112\0"sv,
         "Service connected. A1B2C3D4E502,2\n|Service connected. A1B2C3D4E501,1\n|Group connection finish\r\n"},
        {"AT+LIST\0AT+DISCONN\0AT+DISDEV=A1B2C3D4E501\0AT+DISDEV=\0"sv, "AT+LIST=none\n"},
    };
    for (const auto& [request, expected] : cases) {
        Settings settings = rawOnly(2, 0);
        settings.replies.delay = 300ms;
        Bench bench(settings);
        bench.send(request);
        const Counters counters = bench.engine.counters();
        EXPECT_EQ(counters.unknownTexts * 2 + counters.garbageBytes, request[3] == 'W' ? 8U : 0U);
        EXPECT_EQ(bench.pass(299ms), "");
        EXPECT_EQ(bench.pass(5s, "|"), expected);
        for (const Write& write : bench.writes) {
            EXPECT_GT(write.gap, 10ms) << expected;
        }
        bench.send(request);
        bench.engine.restart();
        EXPECT_EQ(bench.pass(5s), "Bootup") << "whatever was to be answered";
    }
}

TEST(Engine, SendsEveryKindOfFrameAtItsRate) {
    // Raw frames of 10 s: 8 * 250 * 10 / 112 samples; of five channels a frame holds 22 samples each.
    for (const auto& [packing, channels, raw] : {std::tuple(Packing::Single, 8, 178), {Packing::Multi, 5, 113}}) {
        Settings settings = defaultSettings(1);
        settings.headsets[0].packing = packing;
        settings.headsets[0].channels = channels;
        Bench bench(settings);
        bench.connect(1);
        // To all, to none that is there, and with a wrong check byte.
        bench.send("AT+CTLAL:\xAA\xCC\x03\0\0\0\x01\xFB\x41T+CTL2:\xAA\xCC\x03\0\0\0\x01\xFB"sv);
        bench.send("AT+CTL1:\xAA\xCC\x03\0\0\0\x01\xFA\0\0\0\0\0\0\0\0"sv);
        std::map<std::size_t, std::vector<Bytes>> seen;
        for (const auto& [device, payload] : readFrames(bench.pass(20s - 1ms))) {
            seen[payload.size()].push_back(payload);
        }
        // Frames may wait for the next burst.
        EXPECT_NEAR(static_cast<double>(seen[230].size()), 2 * raw, 3) << channels << " channels";
        const Bytes battery = batteryFrame(90, 37);
        EXPECT_EQ(seen[8], (std::vector{battery, shortResponse(0xDD, 1, Bytes{0, 0, 0}), battery}));
        EXPECT_EQ(seen[36].at(19), postFrame(postValues(1, 19)));
        const HeadsetCounters& counters = bench.engine.headsetCounters(1);
        EXPECT_EQ(std::tuple(counters.battery, counters.post, counters.responses, counters.rawSent),
                  std::tuple(2U, 20U, 1U, seen[230].size()));
    }
}

TEST(Engine, RestartsAndIsUnpluggedAgainAndAgain) {
    struct Case {
        TimersFrom from;
        Time first, every;
        std::vector<int> seconds;  // when it happens
    };
    for (const Case& c : {Case{TimersFrom::Start, 3s, 5s, {3, 8, 13, 18}},
                          {TimersFrom::Start, 0s, 5s, {5, 10, 15, 20}},
                          {TimersFrom::FirstConnection, 4s, 0s, {4}}}) {
        Settings settings = rawOnly(1, 0);
        settings.replies.streamDelay = 0s;
        settings.timersFrom = c.from;
        settings.faults.restartAfter = c.first;
        settings.faults.restartEvery = c.every;
        Bench restarting(settings);
        settings.faults.hangUpAfter = std::exchange(settings.faults.restartAfter, 0s);
        settings.faults.replugEvery = std::exchange(settings.faults.restartEvery, 0s);
        Bench unplugging(settings);
        std::vector<int> restarts, unpluggings;
        for (Bench* const bench : {&restarting, &unplugging}) {
            if (c.from == TimersFrom::FirstConnection) {
                EXPECT_EQ(bench->pass(20s), "") << "no group yet";
                bench->connect(1);
            }
        }
        for (int second = 1; second <= 20; ++second) {
            unplugging.engine.join(1);
            unplugging.pass(999ms);
            if (restarting.pass(1s) == "Bootup") {
                restarts.push_back(second);
            }
            const auto before = unplugging.engine.unpluggings();
            unplugging.pass(1ms);
            if (unplugging.engine.unpluggings() == before) {
                continue;
            }
            unpluggings.push_back(second);
            // It has no power while it is out: it hears nothing, has no headset and says nothing.
            unplugging.send("AT+PING");
            unplugging.engine.join(1);
            unplugging.engine.sendRaw("x");
            EXPECT_EQ(unplugging.pass(0s), "");
            EXPECT_FALSE(unplugging.engine.pluggedIn() || unplugging.engine.connected(1));
            EXPECT_EQ(unplugging.engine.hungUp(), c.every == 0s);
        }
        EXPECT_EQ(restarts, c.seconds);
        EXPECT_EQ(unpluggings, c.seconds);
        EXPECT_EQ(unplugging.pass(1s, "|"), "");
        unplugging.send("AT+PING");
        EXPECT_EQ(unplugging.pass(1s), c.every == 0s ? "" : "AT+OK");
    }
}

TEST(Engine, HeadsetsComeBackUnderTheirOtherIndex) {
    Settings settings = rawOnly(2);
    settings.headsets[0].disconnectAfter = 5s;
    settings.headsets[0].rejoinAfter = 2s;
    settings.headsets[0].rejoinIndex = 9;
    Bench bench(settings);
    bench.engine.join(1);
    bench.engine.join(2);
    for (const int index : {9, 1, 9}) {
        bench.pass(5s);
        EXPECT_TRUE(!bench.engine.headsets()[0].connected() && bench.engine.headsets()[1].connected());
        EXPECT_EQ(bench.pass(1900ms).find("Service"), std::string::npos);
        EXPECT_NE(bench.pass(100ms).find("Service connected. A1B2C3D4E501," + std::to_string(index)),
                  std::string::npos);
        EXPECT_THROW(bench.engine.connected(10 - index), std::out_of_range);
    }
    // A host that fetches it back itself gets it under the index that it had.
    bench.pass(5s);
    bench.connect(1);
    bench.pass(4s);
    EXPECT_TRUE(bench.engine.connected(9) && bench.engine.headsets()[0].connection() == 5);
}

}  // namespace dongle::test
