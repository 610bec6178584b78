#include "core/scan.h"
#include "support/log_capture.h"
#include "support/stream_builder.h"
#include "support/testing.h"

namespace test {
namespace {

using namespace kxorbeta_if;
using namespace std::string_literals;

/// "ADDRESS 'NAME' OPTION", and more only when a scan says what it cannot know.
std::string textOf(const ble_device& device) {
    return device.address() + " '" + device.name() + "' " + std::to_string(device.option()) +
           (device.index() == 0 && device.state() == 0 ? "" : " with index or state");
}

TEST(ScanLines, BlocksOfText) {
    const struct {
        std::string text;
        std::vector<std::string> records = {};
    } cases[] = {
        {"A1B2C3D4E5F6,1 XAI-07\n", {"A1B2C3D4E5F6 'XAI-07' 1"}},
        {"A1B2C3D4E5F6,0 AI", {"A1B2C3D4E5F6 'AI' 0"}},
        // A second line of one address changes nothing; addresses differ by case.
        {"A1B2C3D4E5F6,0 XAI\nA1B2C3D4E5F6,1 AI\na1B2C3D4E5F6,2 AI 9\n",
         {"A1B2C3D4E5F6 'XAI' 0", "a1B2C3D4E5F6 'AI 9' 1"}},
        {"Start scan\n\n\nA1B2C3D4E5F6,1\nA1B2C3D4E5F7,1 AI\n,,,,,,,,,,,,,,,,,,,\nA1B2C3D4E5F8 1 AI\n",
         {"A1B2C3D4E5F7 'AI' 1"}},
        {"A1B2C3D4E5F6,1 Headset\nA1B2C3D4E5F7,1 Ai\nA1B2C3D4E5F8,1 A I\n"},
        {"A1B2C3D4E5F6,1 0123456789abcAI\nA1B2C3D4E5F7,1 0123456789abcdAI\n", {"A1B2C3D4E5F6 '0123456789abcAI' 1"}},
        {"A1B2C3D4E5F6,1 AI\r\n", {"A1B2C3D4E5F6 'AI\r' 1"}},
        {"A1:B2:C3:D4:E5:F6,1 XAI\n"},
        {"A1B2C3D4E5F6,:1 A:I\n", {"A1B2C3D4E5F6 'AI' 1"}},
        {"A1B2C3D4E:::,1\nA1B2C3D4E5F6,\n"},
        {"A1B2C3D4E5F6"},
        {"A1B2C3D4E5F6,"},
        {""},
        // A zero byte ends the text.
        {"\0A1B2C3D4E5F6,1 AI\n"s},
        {"A1B2C3D4E5F6,1 AI\nA1B2C3D4E5F7,1 AI\0-7\nA1B2C3D4E5F8,1 AI\n"s,
         {"A1B2C3D4E5F6 'AI' 1", "A1B2C3D4E5F7 'AI' 1"}},
        {"A1B2C3,1 AI\0\0\0\0\0\0\0\0"s},
        {"A1B2C3D4E5F6,x AI\nA1B2C3D4E5F7, AI\nA1B2C3D4E5F8,2147483648 AI\nA1B2C3D4E5F9,-99999999999999999999 AI\n"},
        {"A1B2C3D4E5F6,1 " + std::string(494, 'N') + "AI"},  // 511 bytes, as long as a read
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const LogCapture log;
        ScanWorkingList list;
        // In memory of exactly its size: nothing behind it may be looked at. A second time it changes nothing.
        const std::vector<char> block(c.text.begin(), c.text.end());
        EXPECT_EQ(parseScanLines({block.data(), block.size()}, list), block.size() > 12);
        parseScanLines({block.data(), block.size()}, list);
        std::vector<std::string> found, lines;
        for (const ble_device& device : list.snapshot()) {
            found.push_back(textOf(device));
            lines.push_back("0 Found " + device.address() + ", " + device.name());
        }
        EXPECT_EQ(found, c.records);
        EXPECT_EQ(log.lines(), lines);
        list.clear();
        EXPECT_TRUE(list.snapshot().empty());
    }
}

TEST(ScanLines, RecordOfOneLine) {
    const struct {
        const char *line, *record;
    } cases[] = {
        {"A1B2C3D4E5F6,-3x Name with spaces", "A1B2C3D4E5F6 'Name with spaces' 1"},
        {"A1B2C3D4E5F6,00 ", "A1B2C3D4E5F6 '' 0"},
        {"A1B2C3D4E5F6,\t+2147483647 N", "A1B2C3D4E5F6 'N' 1"},
        {"A1B2C3D4E5F6,-2147483648 N", "A1B2C3D4E5F6 'N' 1"},
        {"A1B2C3D4E5F6,1 two\nlines", "A1B2C3D4E5F6 'two' 1"},
        {"A1:B2:C3:D4:E5:F6,1 N", "A1B2C3D4E5F6 'N' 1"},
        {"A1B2C3D4E5F6,x", "A1B2C3D4E5F6 '' 0"},
        {"A1B2C3D4E5F6 N", "A1B2C3D4E5F6 'N' 0"},
        {"A1B2C3D4E5F6", "A1B2C3D4E5F6 '' 0"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(textOf(deviceFromScanLine(c.line)), c.record) << c.line;
    }
    for (const char* line : {"", "A1:B2:C3:D4:E5:F", "A1B2C3D4E5F6,x N", "A1B2C3D4E5F6, N", "A1B2C3D4E5F6 1,2 N",
                             "A1B2C3D4E5F6,-2147483649 N"}) {
        EXPECT_EQ(textOf(deviceFromScanLine(line)), " '' 0") << line;
    }
}

}  // namespace
}  // namespace test
