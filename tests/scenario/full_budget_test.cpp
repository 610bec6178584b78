#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "core/scan.h"
#include "scenario.h"

// The budgets that other tests shorten, at their full length: a dongle that says nothing.

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;

struct SilentDongle {
    SilentDongle() : line(test::plugLine()) {
        EXPECT_EQ(context.port.open(test::portPath(line).c_str(), kDongleBaud, 3, 0, 0), SerialPort::kOpened);
    }
    test::TestLine line;
    Context context;
};

template <typename Work>
std::chrono::steady_clock::duration timeOf(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::steady_clock::now() - start;
}

TEST(FullBudget, ASilentDongleCostsTwentySecondsAScanAndAHundredAConnection) {
    SilentDongle scanned;
    SilentDongle connected;
    std::thread scanner([&] { EXPECT_GE(timeOf([&] { EXPECT_FALSE(scan(scanned.context)); }), 20s - 100ms); });
    const auto connection = timeOf([&] { EXPECT_FALSE(connectGroup(connected.context, {{"A1B2C3D4E501", 0, 0}}, 0)); });
    EXPECT_GE(connection, 100s - 500ms);
    scanner.join();
    EXPECT_FALSE(scanned.context.flags.scanning);
    EXPECT_FALSE(connected.context.flags.connecting);
}

}  // namespace
}  // namespace kxorbeta_if
