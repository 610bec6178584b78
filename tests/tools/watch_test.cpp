#include "cli/watch.h"

#include <cstring>
#include <sstream>

#include "cli/live_display.h"
#include "cli/progress.h"
#include "support/testing.h"

namespace velmora::cli {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

Headset headset(int number, const char* name) {
    Headset headset{};
    std::strncpy(headset.address, "A1B2C3D4E501", sizeof headset.address - 1);
    std::strncpy(headset.name, name, sizeof headset.name - 1);
    headset.number = number;
    headset.index = number + 1;
    headset.connected = 1;
    return headset;
}

Record record(int kind, int number, std::int64_t time, int code = 0) {
    Record record{};
    record.kind = static_cast<std::uint16_t>(kind);
    record.headset = static_cast<std::int16_t>(number);
    record.time = time;
    record.code = static_cast<std::uint8_t>(code);
    record.index = 9;
    return record;
}

Record event(int code, int number, std::int64_t time) {
    return record(VELMORA_EVENT, number, time, code);
}

class WatchTest : public testing::Test {
  protected:
    void take(const std::vector<Record>& records) {
        watch_.take(records, [this](const std::string& text) { notices_ += text + ";"; });
        watch_.update([this](int) { return counts_; });
    }
    HeadsetView view(std::int64_t now, std::size_t which = 0) { return watch_.views(now)[which]; }
    std::string table(std::int64_t now) {
        std::string all;
        for (const std::string& line : tableLines(watch_.views(now), 61, "COM5")) {
            EXPECT_LT(line.size(), 80U) << line;
            all += line + "\n";
        }
        return all;
    }

    const std::vector<Headset> headsets_{headset(0, "XAI-01"), headset(1, "XAI-02")};
    Watch watch_{headsets_, kSecond};
    HeadsetStatistics counts_{};
    std::string notices_;
};

TEST_F(WatchTest, ShowsRatesOnceTheyAreSteadyAndNoneOfASilentHeadset) {
    counts_.channels[0] = {90, 9, 0, 0, 1, 500.2};
    counts_.channels[3] = {90, 1, 0, 0, 0, 499.8};
    Record raw = record(VELMORA_RAW, 0, 2 * kSecond);
    Record other = raw;
    other.channel = 3;
    take({raw, other, record(VELMORA_RAW, 7, 2 * kSecond)});
    EXPECT_EQ(view(3 * kSecond).fastest, 0);  // an estimate of a moment
    raw.time = 5 * kSecond;
    Record battery = record(VELMORA_BATTERY, 0, 5 * kSecond);
    battery.values[0] = 87;
    take({raw, battery});
    const std::string steady = "A1B2C3D4E501  XAI-01        1  2 x 500.0               180  11 (5.8 %)       87";
    EXPECT_NE(table(6 * kSecond).find(steady), std::string::npos);
    EXPECT_NE(table(7 * kSecond).find("no data for 2 s"), std::string::npos);
    EXPECT_EQ(table(7 * kSecond).find("500.0"), std::string::npos);
    EXPECT_EQ(watch_.silentSeconds(8 * kSecond), 3);
    EXPECT_EQ(summaryLine(view(0), 60),
              "XAI-01 (A1B2C3D4E501): 60.0 s, 180 packets, 2 x 500.0 samples/s, lost 10 "
              "(5.3 %), 1 dropped by this computer");

    // A packet of several channels says how many there are.
    raw.flags = VELMORA_FLAG_MULTI;
    raw.channels = 8;
    take({raw});
    EXPECT_EQ(view(0).channels, 8);
}

TEST_F(WatchTest, TellsWhoLeftAndWhoCameBack) {
    take({event(VELMORA_EVENT_DISCONNECTED, 0, 2 * kSecond)});
    EXPECT_TRUE(watch_.anyConnected());
    EXPECT_NE(logLine(view(3 * kSecond), 2).find("left, 0 packets"), std::string::npos);
    take({event(VELMORA_EVENT_CONNECTED, 0, 9 * kSecond)});
    EXPECT_EQ(view(0).index, 9);
    EXPECT_EQ(watch_.silentSeconds(10 * kSecond), 1);
    EXPECT_EQ(notices_, "XAI-01 (A1B2C3D4E501) left;XAI-01 (A1B2C3D4E501) is back;");

    // A restart takes all along, and is told once.
    notices_.clear();
    take({event(VELMORA_EVENT_DISCONNECTED, 0, 2), event(VELMORA_EVENT_DISCONNECTED, 1, 2),
          event(VELMORA_EVENT_RESTARTED, -1, 2)});
    EXPECT_EQ(notices_, "the dongle restarted;");
    EXPECT_FALSE(watch_.anyConnected());
    EXPECT_TRUE(watch_.takeRestarted());
    EXPECT_FALSE(watch_.takeRestarted());
    watch_.beginAgain(headsets_, 20 * kSecond);
    EXPECT_TRUE(watch_.anyConnected());
    EXPECT_EQ(watch_.silentSeconds(21 * kSecond), 1);
}

// A night with all the headsets that a dongle has: nothing is cut off at 80 columns, and nothing scrolls.
TEST(Terminal, OfEightyColumnsAndTwentyFourLinesShowsAll) {
    HeadsetView busy{"A1B2C3D4E516", "XAI-16", 15, true, 0, 8, 499.9, 500.1, 10'285'714, 102'857, 0, 0, 100};
    HeadsetView silent = busy;
    silent.silentSeconds = 35'999;
    std::vector<HeadsetView> views(16, busy);
    views.back() = silent;
    std::ostringstream out;
    LiveDisplay(out, [](int) {}).show(tableLines(views, 36'000, "/dev/serial/by-id/usb-dongle"), 80, 24);
    const std::string all = out.str();
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 18);
    EXPECT_NE(all.find(" 8 x 500.0          10285714  103k (1.0 %)    100\n"), std::string::npos) << all;
    EXPECT_NE(all.find("no data 9:59:59    10285714"), std::string::npos) << all;

    const auto line = [](double seconds, std::size_t headsets, std::uint64_t packets) {
        record::Progress progress{{headsets, {{}, 0, packets, packets / 99, 90, 0, 0, true, ""}}, 200 * packets};
        progress.headsets[0].connected = headsets == 1;
        return progressLine(progress, seconds, 83'200'000'000, 80);
    };
    EXPECT_EQ(line(7, 1, 50), "0:07  1 headset  50 packets  lost 0  10.0 kB  batt 90  83.2 GB free");
    EXPECT_EQ(line(3'599, 16, 9'900), "59:59  15/16 on  158400 pkts  lost 1600 (1.0 %)  2.0 MB  batt 90  83.2 GB free");
    EXPECT_EQ(line(36'000, 16, 1'287'000),
              "10:00:00  15/16  20.6M pkts  lost 208k (1.0 %)  257 MB  batt 90  83.2 GB free");
}

}  // namespace
}  // namespace velmora::cli
