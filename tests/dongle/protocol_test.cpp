// What goes over the line: the frames of headsets, and the requests of a host.
#include "dongle/host_parser.h"

#include "dongle_test_support.h"

namespace dongle::test {

// All expected bytes here are worked out by hand from the layout of the frames.
TEST(Frames, MatchGoldenBytes) {
    // Battery value 0x57, second value 5.
    EXPECT_EQ(batteryFrame(0x57, 5), (Bytes{0x55, 0x55, 2, 0, 0x57, 5, 0, 0}));
    // 01 + 0A + 0B + 0C + 0D = 2F, its complement is D0.
    EXPECT_EQ(shortResponse(0xDD, 1, Bytes{10, 11, 12, 13}), (Bytes{0xAA, 0xDD, 1, 10, 11, 12, 13, 0xD0}));
    // F0 + 20 + FF = 20F, of which 0F counts; its complement is F0. Data that is not given is 0.
    const Bytes longOne{0xAA, 0xEE, 0xF0, 0x20, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xF0};
    EXPECT_EQ(longResponse(0xEE, 0xF0, Bytes{0x20, 0xFF}), longOne);
    EXPECT_EQ(dataEnvelope(15, Bytes{'#'}), (Bytes{'A', 'T', '+', 'D', 'A', 'T', '1', '5', ':', '1', '#', '#'}));

    Bytes post{0x55, 0x55, 0x20, 0, 0x11, 8, 0x22, 0x44, 0x33, 0, 0, 1, 2, 3};
    post.resize(32);
    post.insert(post.end(), {0xFF, 0xFE, 0xFD, 0});
    EXPECT_EQ(postFrame({0x11, 8, 0x22, 0x33, 0x44, {0x010203, 0, 0, 0, 0, 0, 0, 0xFFFEFD}}), post);

    // -2 in the first slot, 0x0102 in the last one, then the counter and an unused byte.
    Bytes raw{0x55, 0x55, 0xE2, 0x8D, 0xFF, 0xFE};
    raw.resize(226);
    raw.insert(raw.end(), {0x01, 0x02, 200, 0});
    std::vector<std::int16_t> samples(kSamplesPerFrame);
    samples.front() = -2;
    samples.back() = 0x0102;
    EXPECT_EQ(singleChannelFrame(13, samples, 200), raw);
    raw[3] = 0x43;
    EXPECT_EQ(multiChannelFrame(3, samples, 200), raw);

    // Quarter points of the wave, where the sine is 0 or 8,000 exactly, and the ends of the ramp.
    EXPECT_EQ(sampleValue(0, 0, 192), -8000 + 8 * 192);
    EXPECT_EQ(sampleValue(15, 15, 4 + 1008), 8000 + 8 * 1012 + 15 * 512 + 15 * 32);
    EXPECT_EQ(sampleValue(0, 0, 1024ULL * 1'000'000'000'000 + 64), 8000 + 8 * 64);
}

/// What the parser makes of two pieces, of which the second comes some time after the first.
std::string parse(std::string_view first, std::string_view second, Time pause = 1s) {
    HostParser parser;
    std::string all;
    for (const std::string_view piece : {first, second}) {
        for (const HostRequest& request : parser.take(Bytes(piece.begin(), piece.end()), piece == first ? 0s : pause)) {
            all += (all.empty() ? "" : "|") + describe(request);
        }
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
        for (std::size_t cut = 0; cut <= input.size(); ++cut) {
            EXPECT_EQ(parse(input.substr(0, cut), input.substr(cut)), expected) << "cut at " << cut;
        }
    }
    // 03 + FF + 01 + 01 + 01 = 105, so that FA in the eighth place is a right short check byte by chance. The whole
    // frame sums up to 05 + FA + 07 + 40 = 146, of which 46 counts, complement B9, and that decides.
    EXPECT_EQ(parse("AT+CTL1:\xAA\xCC\x03\xFF\x01\x01\x01\xFA\x07\0\0\0\0\0\x40\xB9"sv, ""),
              "command 0x40 to device 1, payload FF 01 01 01 FA 07 00 00 00 00 00");
}

TEST(HostParser, FindsARequestBehindGarbageAndUnfinishedOnes) {
    using namespace std::string_literals;
    const std::string endless(3000, 'B');
    for (const std::string& garbage :
         {endless, "AT+" + endless, "AT+CTL"s, "AT+CTL123456789:"s, "AT+CTL2:\xAA\xBB"s, "ATAT+AT"s}) {
        EXPECT_TRUE(parse(garbage, "AT+PING").ends_with("AT+PING")) << garbage.substr(0, 20);
    }
    EXPECT_EQ(parse("AT+SC", "AN\0AT+SCAN\0"sv, 3s), "unknown bytes 41 54 2B 53 43|unknown bytes 41 4E 00|AT+SCAN");
}

}  // namespace dongle::test
