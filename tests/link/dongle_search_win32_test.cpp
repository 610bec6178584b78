#include "dongle/dongle_runner.h"
#include "link/dongle_search.h"
#include "sdk/VelmoraSDK.h"
#include "support/log_capture.h"
#include "support/test_line.h"
#include "support/testing.h"

// The search over the real port names, of which this program's line has one.

namespace kxorbeta_if {
namespace {

TEST(DongleSearch, FindsTheDongleByItsPortsNumber) {
    test::TestLine line = test::plugLine();
    const std::string path = test::portPath(line);
    const test::LogCapture log;
    {
        const dongle::Runner dongle(dongle::defaultSettings(0), std::move(line.dongleEnd));
        EXPECT_EQ(SDK_CheckPort(), path);
        EXPECT_EQ(log.lines().back(), "0 Found TZDongle on " + path + ".");
    }
    EXPECT_EQ(findDongle({kDongleBaud, 20, ""}), "") << "nobody answers any more";
    EXPECT_EQ(log.lines().back(), "-1 No any TZDongle found.");
}

}  // namespace
}  // namespace kxorbeta_if
