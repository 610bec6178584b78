#include "dongle/host_parser.h"

#include <gtest/gtest.h>

#include "dongle_test_support.h"

namespace dongle::test {

/// What the parser makes of two pieces, of which the second comes some time after the first.
std::string parse(std::string_view first, std::string_view second, Time pause = 1s) {
    HostParser parser;
    std::string all;
    for (const std::string_view piece : {first, second}) {
        for (const HostRequest& request : parser.take(Bytes(piece.begin(), piece.end()), piece == first ? 0s : pause))
            all += (all.empty() ? "" : "|") + describe(request);
    }
    return all;
}

TEST(HostParser, CutsRequestsHoweverTheLineHasCutThem) {
    // Check bytes worked out by hand: 03 + 01 = 04, complement FB; 03 + 11 + 22 + 33 + 44 = AD, complement 52; for the
    // long frame 03 + FF + (1 + 2 + ... + 8 = 24) + 40 = 166, of which 66 counts, complement 99.
    const std::vector<std::pair<std::string_view, std::string>> cases{
        {"AT+PINGAT+PING\0AT+SCAN\0AT+LIST"sv, "AT+PING|AT+PING|AT+SCAN"},
        {"AT+SCAN\0AT+CTLAL:\xAA\xCC\x03\x11\x22\x33\x44\x52\x41T+DISCONN\0"sv,
         "AT+SCAN|command 0x44 to all devices, payload 11 22 33|AT+DISCONN"},
        {"AT+CTL3:\xAA\xCC\x03\xFF\x01\x02\x03\x04\x05\x06\x07\x08\0\0\x40\x99"sv,
         "command 0x40 to device 3, payload FF 01 02 03 04 05 06 07 08 00 00"},
        {"AT+CTL2:\xAA\xCC\x03\0\0\0\x01\xFC\x41T+SCAN\0"sv,
         "command 0x01 to device 2, payload 00 00 00 (wrong check byte)|AT+SCAN"},
        {"AT+GRPCONN=A1AT+PING"sv, "unknown bytes 41 54 2B 47 52 50 43 4F 4E 4E 3D 41 31|AT+PING"},
    };
    for (const auto& [input, expected] : cases) {
        for (std::size_t cut = 0; cut <= input.size(); ++cut)
            EXPECT_EQ(parse(input.substr(0, cut), input.substr(cut)), expected) << "cut at " << cut;
    }
    // 03 + FF + 01 + 01 + 01 = 105, so that FA in the eighth place is a right short check byte by chance. The whole
    // frame sums up to 05 + FA + 07 + 40 = 146, of which 46 counts, complement B9, and that decides.
    EXPECT_EQ(parse("AT+CTL1:\xAA\xCC\x03\xFF\x01\x01\x01\xFA\x07\0\0\0\0\0\x40\xB9"sv, ""),
              "command 0x40 to device 1, payload FF 01 01 01 FA 07 00 00 00 00 00");
}

TEST(HostParser, FindsARequestBehindGarbageAndUnfinishedOnes) {
    const std::string endless(3000, 'B');
    const std::vector<std::string> all{endless,  "AT+" + endless, "AT+CTL", "AT+CTL123456789:", "AT+CTL2:\xAA\xBB",
                                       "ATAT+AT"};
    for (const std::string& garbage : all)
        EXPECT_TRUE(parse(garbage, "AT+PING").ends_with("AT+PING")) << garbage.substr(0, 20);
    EXPECT_EQ(parse("AT+SC", "AN\0AT+SCAN\0"sv, 3s), "unknown bytes 41 54 2B 53 43|unknown bytes 41 4E 00|AT+SCAN");
}

}  // namespace dongle::test
