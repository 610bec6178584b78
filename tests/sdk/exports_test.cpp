#include "base/log.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/log_setup.h"
#include "support/testing.h"
#include "support/working_folder.h"

namespace {

TEST(Exports, EachLifeCycleLogsItsStepsOnceAndWhereTheProcessIsThen) {
    constexpr int kLifeCycles = 100;
    const auto live = [&](const test::WorkingFolder& folder) {
        for (int i = 0; i < kLifeCycles; ++i) {
            EXPECT_EQ(SDK_Init(), 1);
            EXPECT_EQ(SDK_Init(), 1);
            SDK_Cleanup();
            SDK_Cleanup();
        }
        for (const char* line : {"KXSDK init. ver: 1.06.", "Install sdk callback.", "KXSDK cleanup."}) {
            EXPECT_EQ(folder.count("kxsdk.log", line), kLifeCycles) << line;
        }
    };
    const test::WorkingFolder folder;
    SDK_Cleanup();
    EXPECT_EQ(folder.read("kxsdk.log"), "") << "clean-up without set-up says nothing";
    live(folder);
    {
        const test::WorkingFolder elsewhere;
        live(elsewhere);
        EXPECT_EQ(folder.count("kxsdk.log", "KXSDK init."), kLifeCycles);
        kxorbeta_if::logCloseFile(kxorbeta_if::kLogFile);
    }
}

TEST(Exports, WithoutConnectionOrArgumentsNothingHappens) {
    unsigned char payload[255] = {};
    EXPECT_EQ(SDK_SendCommand(0, 1), 0);
    EXPECT_EQ(SDK_SendCommandWithPayload(0, 1, payload, 255), 0);
    EXPECT_EQ(SDK_ConnectDevice("A1B2C3D4E5F6", 0), 0);
    EXPECT_EQ(SDK_ConnectPort(nullptr), 0);
    EXPECT_EQ(SDK_ConnectDevice(nullptr, 0), 0);
    EXPECT_EQ(SDK_DisconnectDevice(nullptr), 0);
    EXPECT_EQ(SDK_GetScanDevice(0, nullptr), 0);
    EXPECT_EQ(SDK_GetConnectedDevice(0, nullptr), 0);
    EXPECT_EQ(SDK_GetConnectedDevicesCount(), 0);
    EXPECT_STREQ(SDK_GetVersion(), "1.06");
}

}  // namespace
