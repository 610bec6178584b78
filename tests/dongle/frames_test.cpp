#include <gtest/gtest.h>

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

}  // namespace dongle::test
