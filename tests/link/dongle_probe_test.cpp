#include "dongle/dongle_runner.h"
#include "link/dongle_search.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/test_line.h"
#include "support/testing.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;

TEST(DongleProbe, OnlyTheExactAnswerInOneReadCounts) {
    const struct {
        std::string answer;
        std::chrono::milliseconds delay;
        int result;
    } cases[] = {{"AT+OK", 40ms, 0},
                 {"AT+OK\r\n", 0ms, -1},
                 {"AT+O", 0ms, -1},
                 {" AT+OK", 0ms, -1},
                 {"at+ok", 0ms, -1},
                 {"", 0ms, -1},
                 {"AT+OK", 5s, -1},
                 {std::string("AT+OK\0", 6), 0ms, 0},
                 {"AT+OK and far more than the thirty-two bytes of one reply", 0ms, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer);
        test::TestLine line = test::plugLine();
        dongle::Settings settings = dongle::defaultSettings(0);
        settings.replies.pingText = c.answer;
        settings.replies.delay = c.delay;
        dongle::Runner dongle(settings, std::move(line.dongleEnd));
        SerialPort port;
        ASSERT_EQ(port.open(test::portPath(line).c_str(), kDongleBaud, 3, 0, 0), SerialPort::kOpened);
        // Long enough for a busy machine where an answer is due, short where none will come.
        EXPECT_EQ(probeDongle(port, c.result == 0 ? 20000 : 200), c.result);
        EXPECT_TRUE(test::eventually(
            [&] { return dongle.with([](dongle::Engine& e) { return e.log().countTexts("AT+PING"); }) == 1; }));
    }
}

TEST(DonglePort, ANameThatDoesNotFitFailsLikeAPortThatCannotBeOpened) {
    const test::LogCapture log;
    SerialPort port;
    const std::string longName(60, 'x');
    EXPECT_FALSE(openDonglePort(port, longName.c_str()));
    EXPECT_FALSE(openDonglePort(port, "COM4099"));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "0 Connect dongle on port " + longName + " baudrate 2000000",
                               R"(-1 Failed to open \\.\)" + longName,
                               "0 Connect dongle on port COM4099 baudrate 2000000",
                               R"(-1 Failed to open \\.\COM4099)",
                           }));
    EXPECT_FALSE(port.isOpen());
}

}  // namespace
}  // namespace kxorbeta_if
