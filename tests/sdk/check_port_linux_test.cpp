#include "dongle/dongle_runner.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/sdk_context.h"
#include "support/test_line.h"
#include "support/testing.h"
#include "support/working_folder.h"

namespace {

TEST(CheckPort, SaysWhereADongleAnswersWhileNoPortIsOpen) {
    const test::WorkingFolder devices;
    kxorbeta_if::DongleSearch& search = kxorbeta_if::processContext().search;
    search.deviceFolder = devices.path();
    EXPECT_STREQ(SDK_CheckPort(), "");
    test::TestLine line = test::plugLine();
    std::filesystem::create_symlink(line.hostPort, devices.path() / "ttyUSB4");
    const dongle::Runner dongle(dongle::defaultSettings(0), std::move(line.dongleEnd));
    const char* const found = SDK_CheckPort();
    EXPECT_STREQ(found, R"(\\.\COM5)");
    ASSERT_EQ(SDK_ConnectPort(line.hostPort.c_str()), 1);
    EXPECT_STREQ(SDK_CheckPort(), "") << "the port is in use, by ourselves";
    SDK_DisconnectPort();
    EXPECT_STREQ(SDK_CheckPort(), R"(\\.\COM5)") << "and closed again";
    search = {};
}

}  // namespace
