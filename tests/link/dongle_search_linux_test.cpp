#include <fstream>

#include "dongle/dongle_runner.h"
#include "link/dongle_search.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/process_memory.h"
#include "support/test_line.h"
#include "support/testing.h"
#include "support/working_folder.h"

// The whole search, over a folder that takes the place of /dev.

namespace kxorbeta_if {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class DongleSearchTest : public testing::Test {
  protected:
    /// A dongle that appears as `device`; an empty answer makes it a silent device.
    dongle::Runner& plug(const std::string& device, const std::string& answer = "AT+OK") {
        test::TestLine line = test::plugLine();
        fs::create_symlink(line.hostPort, folder_.path() / device);
        dongle::Settings settings = dongle::defaultSettings(0);
        settings.replies.pingText = answer;
        dongles_.push_back(std::make_unique<dongle::Runner>(settings, std::move(line.dongleEnd)));
        return *dongles_.back();
    }

    /// Whether that many pings have reached the dongle, which may read them late.
    static bool pinged(dongle::Runner& dongle, std::size_t count) {
        return test::eventually(
            [&] { return dongle.with([](dongle::Engine& e) { return e.log().countTexts("AT+PING"); }) == count; });
    }

    std::string find(std::uint32_t probeTimeoutMs = 100) const {
        return findDongle({kDongleBaud, probeTimeoutMs, folder_.path()});
    }

    test::WorkingFolder folder_;
    test::LogCapture log_;
    std::vector<std::unique_ptr<dongle::Runner>> dongles_;
};

TEST_F(DongleSearchTest, FindsTheFirstThatAnswersInTheOrderOfThePorts) {
    dongle::Runner& silent = plug("ttyUSB2", "");
    dongle::Runner& wrong = plug("ttyUSB3", "AT+OK\r\n");
    dongle::Runner& first = plug("ttyACM0");
    dongle::Runner& later = plug("ttyS33");
    std::ofstream(folder_.path() / "ttyUSB1") << "a plain file opens and refuses its settings";
    fs::create_directory(folder_.path() / "ttyUSB4");
    const std::size_t before = test::openHandles();
    EXPECT_EQ(find(), R"(\\.\COM33)");
    EXPECT_EQ(log_.lines(), std::vector<std::string>{R"(0 Found TZDongle on \\.\COM33.)"});
    EXPECT_TRUE(pinged(silent, 10)) << "five attempts, two pings each";
    EXPECT_TRUE(pinged(wrong, 10));
    EXPECT_TRUE(pinged(later, 0));
    EXPECT_FALSE(first.with([](dongle::Engine& e) { return e.log().countTexts("AT+PING"); }) == 0);
    // A dongle's own thread may just look at its terminal.
    EXPECT_TRUE(test::eventually([&] { return test::openHandles() == before; })) << "no port may stay open";
}

TEST_F(DongleSearchTest, LooksAtPort98AndNotBeyond) {
    plug("ttyS34");
    plug("COM99");
    EXPECT_EQ(find(), "");
    EXPECT_EQ(log_.take(), std::vector<std::string>{"-1 No any TZDongle found."});
    plug("ttyS33");
    EXPECT_EQ(find(500), R"(\\.\COM98)");
}

TEST_F(DongleSearchTest, PassesAHeldPortAndWaitsForASlowDongle) {
    dongle::Runner& first = plug("ttyUSB0");
    plug("ttyUSB1");
    SerialPort holder(folder_.path());
    ASSERT_EQ(holder.open(R"(\\.\COM1)", kDongleBaud, 3, 0, 0), SerialPort::kOpened);
    EXPECT_EQ(find(500), R"(\\.\COM2)");
    EXPECT_TRUE(pinged(first, 0));
    EXPECT_TRUE(holder.isOpen());
    holder.close();
    first.with([](dongle::Engine& e) {
        dongle::ReplySettings replies = e.settings().replies;
        replies.delay = 300ms;  // past the first ping's time, so its answer meets the second ping
        e.setReplies(replies);
    });
    EXPECT_EQ(find(200), R"(\\.\COM1)");
}

}  // namespace
}  // namespace kxorbeta_if
