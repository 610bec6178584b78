#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "core/scan.h"
#include "dongle/dongle_runner.h"
#include "link/dongle_search.h"
#include "sdk/devices/device_lists.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/test_line.h"

// Scans against the virtual dongle. Where no end text comes, the reads are few, so that the test need not wait long.

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;

class ScanScenario : public testing::Test {
  protected:
    ScanScenario() {
        settings_.replies.scanDuration = 150ms;
        context_.timing.scanReadTimeoutMs = 20;
    }

    void start() {
        test::TestLine line = test::plugLine();
        const std::string path = test::portPath(line);
        dongle_ = std::make_unique<dongle::Runner>(settings_, std::move(line.dongleEnd));
        ASSERT_EQ(context_.port.open(path.c_str(), kDongleBaud, 3, 0, 0), SerialPort::kOpened);
    }

    std::vector<std::string> found() {
        std::vector<std::string> records;
        for (const ble_device& device : context_.scanWorkingList.snapshot()) {
            records.push_back(device.address() + "," + std::to_string(device.option()) + " " + device.name());
        }
        return records;
    }

    std::size_t scansSeen() {
        return dongle_->with([](dongle::Engine& e) { return e.log().countTexts("AT+SCAN"); });
    }

    dongle::Settings settings_ = dongle::defaultSettings(3);
    Context context_;
    test::LogCapture log_;
    std::unique_ptr<dongle::Runner> dongle_;
};

TEST_F(ScanScenario, CollectsHeadsetsUntilTheDongleSaysItIsDone) {
    settings_.headsets[1].scanFlag = 0;
    start();
    EXPECT_TRUE(scan(context_));
    const std::vector<std::string> three = {"A1B2C3D4E501,1 XAI-01", "A1B2C3D4E502,0 XAI-02", "A1B2C3D4E503,1 XAI-03"};
    EXPECT_EQ(found(), three);
    EXPECT_FALSE(context_.flags.scanning);
    EXPECT_EQ(log_.lines(), (std::vector<std::string>{"0 Scan BLE device.", "0 Found A1B2C3D4E501, XAI-01",
                                                      "0 Found A1B2C3D4E502, XAI-02", "0 Found A1B2C3D4E503, XAI-03"}));
    EXPECT_TRUE(scan(context_));
    EXPECT_EQ(found(), three) << "a new scan starts with an empty list";
    EXPECT_EQ(scansSeen(), 2u);
}

TEST_F(ScanScenario, OddLinesAreSortedOutAndTheScanGoesOn) {
    settings_.replies.scanLines = {
        "A1B2C3D4E5F6,0 XAI-07",           // kept
        "A1B2C3D4E5F6,1 XAI-08",           // known address: the first report wins
        "B1B2C3D4E5F6,1 Headset",          // another family
        "C1B2C3D4E5F6,1 XAI-0123456789A",  // 15 characters: kept
        "C2B2C3D4E5F6,1 XAI-0123456789AB",
        "A1:B2:C3:D4:E5:F7,1 XAI",
        "D1B2C3D4E5F6,99999999999 XAI",
        "D2B2C3D4E5F6,x XAI",
        "D3B2C3D4E5F6,5XAI",
        "D4B2C3D4E5F6, -2 XAI",  // first space before the number: none to read
        "D5B2C3D4E5F6,-2 AI",    // kept, a flag of 1
        std::string(500, 'A'),
        "short",
        "",
    };
    start();
    EXPECT_TRUE(scan(context_));
    EXPECT_EQ(found(), (std::vector<std::string>{"A1B2C3D4E5F6,0 XAI-07", "C1B2C3D4E5F6,1 XAI-0123456789A",
                                                 "D5B2C3D4E5F6,1 AI"}));
}

TEST_F(ScanScenario, WithoutTheEndTextTheReadsRunOutAndWhatWasFoundStays) {
    settings_.replies.scanEnd = false;
    context_.timing.scanReads = 30;
    start();
    EXPECT_FALSE(scan(context_));
    EXPECT_EQ(found().size(), 3u);
    EXPECT_FALSE(context_.flags.scanning);
}

TEST_F(ScanScenario, ALineInTheSameReadAsTheEndTextIsLost) {
    settings_.replies.scanLines = {"A1B2C3D4E5F6,0 XAI-07\nFinish scan\nB1B2C3D4E5F6,0 XAI-08"};
    start();
    EXPECT_TRUE(scan(context_));
    EXPECT_TRUE(found().empty());
}

TEST_F(ScanScenario, IsRefusedWhileThePortIsNotItsOwn) {
    EXPECT_FALSE(scan(context_)) << "closed port";
    start();
    EXPECT_TRUE(scan(context_));
    for (std::atomic<bool>* flag : {&context_.flags.linkActive, &context_.flags.scanning, &context_.flags.connecting}) {
        *flag = true;
        EXPECT_FALSE(scan(context_));
        *flag = false;
    }
    EXPECT_EQ(found().size(), 3u) << "a refused scan empties nothing";
    EXPECT_EQ(scansSeen(), 1u);
}

TEST_F(ScanScenario, WithoutAThreadItFailsAndStaysRefused) {
    start();
    context_.startThread = [](auto) -> std::thread { throw std::system_error(EAGAIN, std::generic_category()); };
    EXPECT_THROW(scan(context_), std::system_error);
    EXPECT_TRUE(context_.flags.scanning);
    EXPECT_FALSE(scan(context_));
}

TEST_F(ScanScenario, TheListLockIsHeldForTheWholeScan) {
    start();
    DeviceLists lists;
    std::atomic<bool> ended{false};
    std::thread scanner([&] {
        lists.scanDevices([&] { return scan(context_); },
                          [&] {
                              ended = true;
                              return context_.scanWorkingList.snapshot();
                          });
    });
    ASSERT_TRUE(test::eventually([&] { return context_.flags.scanning || ended; }));
    EXPECT_EQ(lists.scanCount(), 3) << "a reader waits for the end of the scan";
    EXPECT_TRUE(ended);
    scanner.join();
}

TEST_F(ScanScenario, ClosingThePortInMidScanIsSafe) {
    settings_.replies.scanDuration = 60s;
    context_.timing.scanReads = 25;
    start();
    std::thread closer([&] {
        EXPECT_TRUE(test::eventually([&] { return scansSeen() == 1; }));
        context_.port.close();
    });
    EXPECT_FALSE(scan(context_));
    closer.join();
    EXPECT_FALSE(scan(context_)) << "the port is closed now";
}

}  // namespace
}  // namespace kxorbeta_if
