#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/log.h"
#include "dongle/dongle_runner.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/log_setup.h"
#include "support/eventually.h"
#include "support/test_line.h"
#include "support/working_folder.h"

// A host's whole session through the exported functions, with callbacks that do what hosts do.

namespace {

using namespace std::chrono_literals;

std::atomic<long> rawCalls{0};
std::atomic<long> battCalls{0};
std::atomic<long> postCalls{0};
std::atomic<long> eventCalls{0};
std::atomic<unsigned> lastEvent{0};

void countRaw(int, int, int*, int) {
    ++rawCalls;
}
void countBatt(int, unsigned, unsigned) {
    ++battCalls;
}
void countPost(int, unsigned char, unsigned char, unsigned char, unsigned char, unsigned*) {
    ++postCalls;
}
void countEvent(unsigned code, unsigned) {
    lastEvent = code;
    ++eventCalls;
}

class Session : public testing::Test {
  protected:
    Session() : line_(test::plugLine()) {
        settings_.headsets[0].sampleRate = 2000;
        settings_.headsets[0].batteryInterval = 100ms;
        settings_.headsets[0].postInterval = 50ms;
        settings_.replies.scanDuration = 60ms;
        settings_.replies.connectDuration = 10ms;
        settings_.replies.streamDelay = 10ms;
        rawCalls = battCalls = postCalls = eventCalls = 0;
        SDK_SetRawDataCallback(countRaw);
        SDK_SetBattInfoCallback(countBatt);
        SDK_SetPostDataCallback(countPost);
        SDK_SetEventCallback(countEvent);
        SDK_Init();
    }
    ~Session() override {
        SDK_Cleanup();
        while (SDK_GetConnectedDevicesCount() > 0) {  // the connected list is the host's to empty
            DeviceInfo info{};
            SDK_GetConnectedDevice(0, &info);
            SDK_DisconnectDevice(info.address);
        }
        kxorbeta_if::logCloseFile(kxorbeta_if::kLogFile);
        SDK_SetRawDataCallback(nullptr);
        SDK_SetBattInfoCallback(nullptr);
        SDK_SetPostDataCallback(nullptr);
        SDK_SetEventCallback(nullptr);
    }

    void plug() { dongle_ = std::make_unique<dongle::Runner>(settings_, std::move(line_.dongleEnd)); }
    void stream() {
        plug();
        ASSERT_EQ(SDK_ConnectPort(line_.hostPort.c_str()), 1);
        ASSERT_EQ(SDK_ConnectDevice("A1:B2:C3:D4:E5:01", 1), 1);
        ASSERT_EQ(SDK_StartDataCollection(), 1);
        ASSERT_TRUE(moreData());
    }
    static bool moreData() {
        const long before = rawCalls;
        return test::eventually([&] { return rawCalls > before + 20; });
    }
    std::string log() const { return folder_.read("kxsdk.log"); }

    test::WorkingFolder folder_;
    test::TestLine line_;
    dongle::Settings settings_ = dongle::defaultSettings(2);
    std::unique_ptr<dongle::Runner> dongle_;
};

TEST_F(Session, FromPortToDataAndBackTwice) {
    plug();
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(SDK_ConnectPort((R"(\\.\)" + line_.hostPort).c_str()), 1) << "a search's result is a port name, too";
        EXPECT_EQ(SDK_ConnectPort(line_.hostPort.c_str()), 0);
        EXPECT_STREQ(SDK_CheckPort(), "");
        ASSERT_EQ(SDK_ScanDevices(), 1);
        ASSERT_EQ(SDK_GetScanDevicesCount(), 2);
        DeviceInfo found{};
        ASSERT_EQ(SDK_GetScanDevice(0, &found), 1);
        EXPECT_STREQ(found.address, "A1B2C3D4E501");
        EXPECT_STREQ(found.name, "XAI-01");
        ASSERT_EQ(SDK_ConnectDevice(found.address, found.option), 1);
        EXPECT_EQ(SDK_GetConnectedDevicesCount(), round + 1) << "disconnecting all prunes nothing";
        EXPECT_EQ(SDK_ScanDevices(), 0) << "the link thread has the port";
        EXPECT_EQ(SDK_GetScanDevicesCount(), 2);

        std::this_thread::sleep_for(100ms);
        EXPECT_EQ(rawCalls, 0) << "the gate is closed";
        ASSERT_EQ(SDK_StartDataCollection(), 1);
        EXPECT_TRUE(test::eventually([&] { return rawCalls > 100 && battCalls > 0 && postCalls > 0; }));
        SDK_DisconnectPort();
        EXPECT_EQ(lastEvent, 5u);
        const long after = rawCalls.exchange(0);
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(rawCalls, 0) << "after " << after;
        EXPECT_TRUE(test::eventually([&] { return dongle_->with([](dongle::Engine& e) { return !e.connected(1); }); }));
    }
    EXPECT_NE(log().find("Disconnect device and dongle."), std::string::npos);
}

TEST_F(Session, ClosingThePortWithCollectionOffTellsTheDongleNothing) {
    stream();
    SDK_StopDataCollection();
    SDK_DisconnectPort();
    EXPECT_TRUE(dongle_->with([](dongle::Engine& e) { return e.connected(1); }));
    EXPECT_EQ(SDK_ConnectPort(line_.hostPort.c_str()), 1);
    EXPECT_EQ(SDK_ConnectDevice("A1B2C3D4E501", 1), 0) << "the link thread still runs";
    SDK_Cleanup();
    EXPECT_EQ(lastEvent, 5u);
}

TEST_F(Session, CallbacksThatThrowOrBlockCostOnlyTheirCalls) {
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        throw std::runtime_error("a host's mistake");
    });
    stream();
    const auto sent = [&] { return dongle_->with([](dongle::Engine& e) { return e.headsetCounters(1).rawSent; }); };
    const std::uint64_t sentBefore = sent();
    const long callsBefore = rawCalls;
    ASSERT_TRUE(test::eventually([&] { return sent() > sentBefore + 300; }));
    // What is still on its way is a few packets; a callback that cost the rest of its block would cost nine of ten.
    EXPECT_GT(rawCalls - callsBefore, 200);
    SDK_SetEventCallback([](unsigned, unsigned) {
        ++eventCalls;
        throw 1;
    });
    dongle_->with([](dongle::Engine& e) { e.join(2); });
    EXPECT_TRUE(test::eventually([&] { return eventCalls >= 3; }));
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        std::this_thread::sleep_for(50ms);
    });
    EXPECT_TRUE(moreData());
    SDK_SetRawDataCallback(countRaw);
    EXPECT_TRUE(moreData()) << "the stream recovers";
    dongle_->with([](dongle::Engine& e) { e.disconnect(2); });
    const long before = eventCalls;
    EXPECT_TRUE(test::eventually([&] { return eventCalls > before; })) << "the event lock was given back";
}

TEST_F(Session, CallbacksMayCallTheLibrary) {
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        DeviceInfo info{};
        SDK_StartDataCollection();
        SDK_GetConnectedDevice(0, &info);
        SDK_GetScanDevicesCount();
        SDK_GetVersion();
        if (rawCalls == 1) {
            SDK_SendCommand(1, 0x21);
            unsigned char payload[3] = {1, 2, 3};
            SDK_SendCommandWithPayload(1, 0x22, payload, 3);
        }
        SDK_SetBattInfoCallback(countBatt);
    });
    SDK_SetEventCallback([](unsigned code, unsigned) {
        lastEvent = code;
        ++eventCalls;
        SDK_StartDataCollection();
        SDK_StopDataCollection();
        SDK_StartDataCollection();
    });
    stream();
    EXPECT_TRUE(test::eventually(
        [&] { return dongle_->with([](dongle::Engine& e) { return e.headsetCounters(1).responses; }) == 2; }));
    // A data callback may even end the session.
    SDK_SetRawDataCallback([](int, int, int*, int) {
        SDK_SetRawDataCallback(countRaw);
        SDK_Cleanup();
    });
    EXPECT_TRUE(test::eventually([&] { return lastEvent == 5; }));
    EXPECT_EQ(SDK_Init(), 1);
}

TEST_F(Session, CollectionToggledThousandsOfTimesAtFullRate) {
    settings_.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    stream();
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(SDK_StartDataCollection(), 1);
        if (i % 50 == 0) {
            std::this_thread::sleep_for(1ms);
        }
        SDK_StopDataCollection();
    }
    SDK_StartDataCollection();
    EXPECT_TRUE(moreData());
}

}  // namespace
