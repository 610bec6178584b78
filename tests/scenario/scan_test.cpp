#include "core/scan.h"
#include "scenario.h"
#include "sdk/devices/device_lists.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;

class ScanScenario : public test::Scenario {
  protected:
    ScanScenario() { settings = dongle::defaultSettings(3); }

    std::vector<std::string> found() {
        std::vector<std::string> records;
        for (const ble_device& device : context_.scanWorkingList.snapshot()) {
            records.push_back(device.address() + "," + std::to_string(device.option()) + " " + device.name());
        }
        return records;
    }
};

TEST_F(ScanScenario, CollectsHeadsetsUntilTheDongleSaysItIsDone) {
    settings.headsets[1].scanFlag = 0;
    start();
    EXPECT_TRUE(scan(context_));
    const std::vector<std::string> three = {"A1B2C3D4E501,1 XAI-01", "A1B2C3D4E502,0 XAI-02", "A1B2C3D4E503,1 XAI-03"};
    EXPECT_EQ(found(), three);
    EXPECT_FALSE(context_.flags.scanning);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"0 Scan BLE device.", "0 Found A1B2C3D4E501, XAI-01",
                                                     "0 Found A1B2C3D4E502, XAI-02", "0 Found A1B2C3D4E503, XAI-03"}));
    EXPECT_TRUE(scan(context_));
    EXPECT_EQ(found(), three) << "a new scan starts with an empty list";
    EXPECT_EQ(requestCount("AT+SCAN"), 2u);
}

TEST_F(ScanScenario, WithoutTheEndTextTheReadsRunOutAndWhatWasFoundStays) {
    settings.replies.scanEnd = false;
    start();
    const auto begin = clock_.now();
    EXPECT_FALSE(scan(context_));
    // Four hundred reads of 50 ms; one that brought a line ended 10 ms behind it.
    EXPECT_NEAR(std::chrono::duration<double>(clock_.now() - begin).count(), 20.0, 0.15);
    EXPECT_EQ(found().size(), 3u);
    EXPECT_FALSE(context_.flags.scanning);
    EXPECT_EQ(line_.hostWrites(), std::vector<std::string>{std::string("AT+SCAN\0", 8)});

    line_.with([](dongle::Engine& e) { e.setSilent(true); });
    const auto beginSilent = clock_.now();
    EXPECT_FALSE(scan(context_));
    EXPECT_EQ(clock_.now() - beginSilent, 20s);
}

TEST_F(ScanScenario, ALineInTheSameReadAsTheEndTextIsLost) {
    settings.replies.scanLines = {"A1B2C3D4E5F6,0 XAI-07\nFinish scan\nB1B2C3D4E5F6,0 XAI-08"};
    start();
    EXPECT_TRUE(scan(context_));
    EXPECT_TRUE(found().empty());
}

TEST_F(ScanScenario, AReadTakes511BytesAndEndsALineThere) {
    settings.replies.scanLines = {std::string(490, 'x') + "\nA1B2C3D4E5F6,1 XAI-0|7"};
    start();
    EXPECT_TRUE(scan(context_));
    EXPECT_EQ(found(), std::vector<std::string>{"A1B2C3D4E5F6,1 XAI-0"});
}

TEST_F(ScanScenario, TheListLockIsHeldForTheWholeScan) {
    start();
    DeviceLists lists;
    std::atomic<bool> ended{false};
    std::thread reader;
    EXPECT_TRUE(lists.scanDevices(
        [&] {
            // A plain thread: it waits for the list lock, not for the clock.
            reader = std::thread([&] {
                EXPECT_EQ(lists.scanCount(), 3) << "a reader waits for the end of the scan";
                EXPECT_TRUE(ended);
            });
            return scan(context_);
        },
        [&] {
            ended = true;
            return context_.scanWorkingList.snapshot();
        }));
    reader.join();
}

TEST_F(ScanScenario, ALineThatIsGoneEndsTheScanAtOnce) {
    expectToEndWithTheLine([&] { return scan(context_); });
}

}  // namespace
}  // namespace kxorbeta_if
