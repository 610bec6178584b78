#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "core/log.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/log_setup.h"
#include "support/working_folder.h"

namespace {

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

/// The exported functions share one context; each test leaves it uninitialised.
class Exports : public testing::Test {
  protected:
    ~Exports() override {
        SDK_Cleanup();
        kxorbeta_if::logCloseFile(kxorbeta_if::kLogFile);
    }
    std::string log() const { return folder_.read("kxsdk.log"); }
    test::WorkingFolder folder_;
};

TEST_F(Exports, LifeCycleLogsEachStepOnce) {
    SDK_Cleanup();
    EXPECT_EQ(log(), "") << "clean-up without set-up says nothing";
    EXPECT_EQ(SDK_Init(), 1);
    EXPECT_EQ(SDK_Init(), 1);
    EXPECT_EQ(occurrences(log(), "KXSDK init. ver: 1.06."), 1);
    EXPECT_EQ(occurrences(log(), "Install sdk callback."), 1);
    SDK_Cleanup();
    SDK_Cleanup();
    EXPECT_EQ(occurrences(log(), "KXSDK cleanup."), 1);
}

TEST_F(Exports, ASecondSetUpLogsOnceAndWhereTheProcessIsThen) {
    SDK_Init();
    SDK_Cleanup();
    const std::string before = log();
    {
        const test::WorkingFolder elsewhere;
        EXPECT_EQ(SDK_Init(), 1);
        SDK_Cleanup();
        EXPECT_EQ(log(), before);
        const std::string text = elsewhere.read("kxsdk.log");
        EXPECT_EQ(occurrences(text, "KXSDK init. ver: 1.06."), 1);
        EXPECT_EQ(occurrences(text, "KXSDK cleanup."), 1);
        kxorbeta_if::logCloseFile(kxorbeta_if::kLogFile);
    }
}

TEST_F(Exports, WithoutHeadsetsNothingStartsAndNothingIsSent) {
    SDK_Init();
    const int found = SDK_GetScanDevicesCount();
    EXPECT_EQ(SDK_StartDataCollection(), 0);
    EXPECT_EQ(occurrences(log(), "WARN| No device connected"), 1);
    EXPECT_EQ(SDK_StopDataCollection(), 1);
    EXPECT_EQ(occurrences(log(), "Orbeta record stop"), 1);
    unsigned char payload[255] = {};
    EXPECT_EQ(SDK_SendCommand(0, 1), 0);
    EXPECT_EQ(SDK_SendCommandWithPayload(0, 1, payload, 255), 0);
    EXPECT_EQ(SDK_SendCommandWithPayload(0, 1, nullptr, 4), 0);
    EXPECT_EQ(SDK_ScanDevices(), 0);
    EXPECT_EQ(SDK_ConnectDevice("A1B2C3D4E5F6", 0), 0);
    EXPECT_EQ(SDK_DisconnectDevice("A1B2C3D4E5F6"), 0);
    EXPECT_EQ(SDK_GetScanDevicesCount(), found) << "a scan that fails leaves the list as it was";
    EXPECT_EQ(SDK_GetConnectedDevicesCount(), 0);
}

TEST_F(Exports, NullArgumentsFailWithoutHarm) {
    EXPECT_EQ(SDK_ConnectPort(nullptr), 0);
    EXPECT_EQ(SDK_ConnectDevice(nullptr, 0), 0);
    EXPECT_EQ(SDK_DisconnectDevice(nullptr), 0);
    EXPECT_EQ(SDK_GetScanDevice(0, nullptr), 0);
    EXPECT_EQ(SDK_GetConnectedDevice(0, nullptr), 0);
    SDK_SetPostDataCallback(nullptr);
    SDK_SetRawDataCallback(nullptr);
    SDK_SetBattInfoCallback(nullptr);
    SDK_SetEventCallback(nullptr);
}

TEST_F(Exports, VersionStaysReadable) {
    const char* const first = SDK_GetVersion();
    EXPECT_STREQ(first, "1.06");
    EXPECT_STREQ(SDK_GetVersion(), "1.06");
}

TEST_F(Exports, AThousandLifeCyclesKeepTheLogOpenOnce) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(SDK_Init(), 1);
        SDK_Cleanup();
    }
    const std::string text = log();
    EXPECT_EQ(occurrences(text, "KXSDK init. ver: 1.06."), 1000);
    EXPECT_EQ(occurrences(text, "KXSDK cleanup."), 1000);
}

}  // namespace
