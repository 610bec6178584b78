#include <gtest/gtest.h>

#include "core/scan.h"
#include "support/log_capture.h"
#include "support/stream_builder.h"

namespace test {
namespace {

using namespace kxorbeta_if;

/// "ADDRESS 'NAME' OPTION", and more only when a scan says what it cannot know.
std::string textOf(const ble_device& device) {
    return device.address() + " '" + device.name() + "' " + std::to_string(device.option()) +
           (device.index() == 0 && device.state() == 0 ? "" : " with index or state");
}

TEST(ScanLines, BlocksOfText) {
    const std::string longName = "A1B2C3D4E5F6,1 " + std::string(494, 'N') + "AI";  // 511 bytes, as long as a read
    auto table = rows(R"(A1B2C3D4E5F6,1 XAI-07$ => A1B2C3D4E5F6 'XAI-07' 1 | A1B2C3D4E5F6,0 AI => A1B2C3D4E5F6 'AI' 0
        A1B2C3D4E5F6,0 XAI$A1B2C3D4E5F6,1 AI$a1B2C3D4E5F6,2 AI 9$ => A1B2C3D4E5F6 'XAI' 0 => a1B2C3D4E5F6 'AI 9' 1
        Start scan$$$A1B2C3D4E5F6,1$A1B2C3D4E5F7,1 AI$,,,,,,,,,,,,,,,,,,,$A1B2C3D4E5F8 1 AI$ => A1B2C3D4E5F7 'AI' 1
        A1B2C3D4E5F6,1 Headset$A1B2C3D4E5F7,1 Ai$A1B2C3D4E5F8,1 A I$
        A1B2C3D4E5F6,1 0123456789abcAI$A1B2C3D4E5F7,1 0123456789abcdAI$ => A1B2C3D4E5F6 '0123456789abcAI' 1
        A1B2C3D4E5F6,1 AI%$ => A1B2C3D4E5F6 'AI%' 1 | A1:B2:C3:D4:E5:F6,1 XAI$
        A1B2C3D4E5F6,:1 A:I$ => A1B2C3D4E5F6 'AI' 1 | A1B2C3D4E:::,1$A1B2C3D4E5F6,$ | A1B2C3D4E5F6 | A1B2C3D4E5F6, | -
        ~A1B2C3D4E5F6,1 AI$
        A1B2C3D4E5F6,1 AI$A1B2C3D4E5F7,1 AI~-7$A1B2C3D4E5F8,1 AI$ => A1B2C3D4E5F6 'AI' 1 => A1B2C3D4E5F7 'AI' 1
        A1B2C3,1 AI~~~~~~~~
        A1B2C3D4E5F6,x AI$A1B2C3D4E5F7, AI$A1B2C3D4E5F8,2147483648 AI$A1B2C3D4E5F9,-99999999999999999999 AI$)");
    table.push_back({longName});
    for (auto& expected : table) {
        SCOPED_TRACE(expected[0]);
        const LogCapture log;
        ScanWorkingList list;
        // In memory of exactly its size: nothing behind it may be looked at. A second time it changes nothing.
        const std::vector<char> block(expected[0].begin(), expected[0].end());
        expected.erase(expected.begin());
        EXPECT_EQ(parseScanLines({block.data(), block.size()}, list), block.size() > 12);
        parseScanLines({block.data(), block.size()}, list);
        std::vector<std::string> found, lines;
        for (const ble_device& device : list.snapshot()) {
            found.push_back(textOf(device));
            lines.push_back("0 Found " + device.address() + ", " + device.name());
        }
        EXPECT_EQ(found, expected);
        EXPECT_EQ(log.lines(), lines);
        list.clear();
        EXPECT_TRUE(list.snapshot().empty());
    }
}

TEST(ScanLines, RecordOfOneLine) {
    auto table = rows(
        R"(A1B2C3D4E5F6,-3x Name with spaces => A1B2C3D4E5F6 'Name with spaces' 1 | A1B2C3D4E5F6,00  => A1B2C3D4E5F6 '' 0
        A1B2C3D4E5F6,`+2147483647 N => A1B2C3D4E5F6 'N' 1 | A1B2C3D4E5F6,-2147483648 N => A1B2C3D4E5F6 'N' 1
        A1B2C3D4E5F6,1 two$lines => A1B2C3D4E5F6 'two' 1 | A1:B2:C3:D4:E5:F6,1 N => A1B2C3D4E5F6 'N' 1
        A1B2C3D4E5F6,x => A1B2C3D4E5F6 '' 0 | A1B2C3D4E5F6 N => A1B2C3D4E5F6 'N' 0 | A1B2C3D4E5F6 => A1B2C3D4E5F6 '' 0
        A1:B2:C3:D4:E5:F =>  '' 0 | - =>  '' 0 | A1B2C3D4E5F6,x N =>  '' 0 | A1B2C3D4E5F6, N =>  '' 0
        A1B2C3D4E5F6,-2147483649 N =>  '' 0)");
    for (const auto& row : table) {
        EXPECT_EQ(textOf(deviceFromScanLine(row[0])), row[1]) << row[0];
    }
}

}  // namespace
}  // namespace test
