#include "dongle/dongle_engine.h"

#include <gtest/gtest.h>

#include <functional>

#include "dongle_test_support.h"

namespace dongle::test {

TEST(Engine, AnswersRequestsWithTextsInWritesOfTheirOwnWhenTheyAreDue) {
    const std::vector<std::pair<std::string_view, std::string>> cases{
        {"AT+WHAT\0AT+\0xyz\0AT+PING"sv, "AT+OK"},
        {"AT+SCAN\0AT+SCAN\0"sv, "Start scan\n|A1B2C3D4E501,1 XAI-01\n|A1B2C3D4E502,1 XAI-02\n|Finish scan\r\n"},
        {"AT+GRPCONN=FFFFFFFFFFFF;A1B2;A1B2C3D4E501x;;A1B2C3D4E502-1;A1B2C3D4E50112\0"sv,
         "Service connected. A1B2C3D4E502,2\n|Service connected. A1B2C3D4E501,1\n|Group connection finish\r\n"},
        {"AT+LIST\0AT+DISDEV=A1B2C3D4E501\0AT+DISDEV=\0"sv, "AT+LIST=none\n"},
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
        for (const Write& write : bench.writes)
            EXPECT_GT(write.gap, 10ms) << expected;
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
        for (const auto& [device, payload] : readFrames(bench.pass(20s - 1ms)))
            seen[payload.size()].push_back(payload);
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

TEST(Engine, TimersActOnceAndCountFromTheFirstConnection) {
    const std::vector<std::tuple<std::function<void(Settings&)>, std::string, std::string>> cases{
        {[](Settings& s) { s.headsets[1].joinAfter = 5s; }, "Service connected. A1B2C3D4E502,2\n", "AT+OK"},
        {[](Settings& s) { s.headsets[0].disconnectAfter = 5s; }, "Client disconnected,A1B2C3D4E501,19\r\n", "AT+OK"},
        {[](Settings& s) { s.faults.restartAfter = 5s; }, "Bootup", "AT+OK"},
        {[](Settings& s) { s.faults.hangUpAfter = 5s; }, "", ""},
        {[](Settings& s) { s.faults.silenceAfter = 5s; }, "", ""},
    };
    for (const auto& [change, expected, answer] : cases) {
        Settings settings = rawOnly(2, 0);
        change(settings);
        Bench bench(settings);
        EXPECT_EQ(bench.pass(20s), "") << "no group yet";
        bench.connect(1);
        bench.send("AT+PING");
        EXPECT_EQ(bench.pass(4700ms), "AT+OK") << expected;
        EXPECT_EQ(bench.pass(300ms), expected);
        EXPECT_EQ(bench.engine.hungUp(), settings.faults.hangUpAfter > 0s);
        bench.send("AT+PING");
        EXPECT_EQ(bench.pass(20s), answer) << expected;
    }
}

}  // namespace dongle::test
