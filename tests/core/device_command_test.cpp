#include "core/device_command.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

#include "support/stream_builder.h"

namespace test {
namespace {

using namespace kxorbeta_if;

// Worked by hand from the places that payload and command have in a frame. The last byte is the complement of the sum
// from the third byte on; the sums are, for the lengths 0 to 4: 08, 18, 38, 68, A3; for 8: 347; for 10: 477; for 11:
// 428; for 12: 4E3. Lengths without a frame are empty.
const auto kFrames =
    rows(R"(AACC0300000005F7 | AACC0300001005E7 | AACC0300102005C7 | AACC031020300597 | AACC03102030405C
    - | - | - | AACC03FF1020304050607080000005B8 | - | AACC03FF102030405060708090A00588
    AACC03102030405060708090A0B005D7 | AACC03102030405060708090A0B0C01C | -)");

TEST(DeviceCommand, PayloadPlacementBareAndInTheEnvelope) {
    const Bytes payload = fromHex("102030405060708090A0B0C0D0");
    for (const bool framing : {false, true}) {
        for (std::size_t length = 0; length <= payload.size(); ++length) {
            SCOPED_TRACE(testing::Message() << length << " bytes, envelope " << framing);
            Flags flags;
            flags.ctlFraming = framing;
            CommandQueue queue;
            EXPECT_FALSE(sendCommandWithPayload(flags, queue, 7, 0x05, part(payload, 0, length)));
            EXPECT_FALSE(sendCommand(flags, queue, 7, 0x05));
            EXPECT_EQ(queue.size(), 0u) << "no headset is connected";
            flags.linkActive = true;
            EXPECT_FALSE(sendCommandWithPayload(flags, queue, 7, 0x05, part(payload, 0, length)));
            const Bytes frame = fromHex(kFrames[length][0]);
            EXPECT_EQ(queue.size(), frame.empty() ? 0u : 1u);
            EXPECT_EQ(queue.pop().value_or(Bytes{}),
                      framing && !frame.empty() ? joined({bytesOf("AT+CTL7:"), frame}) : frame);
        }
    }
    // The sum wraps: 03 + FF + FF + FF + 10 = 310; the complement of 10 is EF.
    EXPECT_EQ(hexOf(commandFrame(0x10, Bytes(3, 0xFF))), "AACC03FFFFFF10EF");
}

TEST(DeviceCommand, EnvelopeNamesTheHeadset) {
    Flags flags;
    flags.linkActive = flags.ctlFraming = true;
    CommandQueue queue;
    for (std::uint32_t headset = 0; headset <= 41; ++headset) {
        const std::string target = headset == 0    ? "AL"
                                   : headset < 10  ? std::string(1, "0123456789"[headset])
                                   : headset <= 12 ? "11"
                                                   : "1";
        EXPECT_TRUE(sendCommand(flags, queue, headset == 41 ? 0xFFFFFFFF : headset, 0x01));
        EXPECT_EQ(queue.pop(), joined({bytesOf("AT+CTL" + target + ":"), fromHex("AACC0300000001FB")})) << headset;
    }
}

TEST(CommandQueue, ThreadsNeitherLoseNorMixCommands) {
    constexpr std::uint8_t kThreads = 4;
    constexpr std::uint16_t kEach = 5000;
    CommandQueue queue;
    std::vector<std::thread> producers;
    for (std::uint8_t thread = 0; thread < kThreads; ++thread) {
        producers.emplace_back([&queue, thread] {
            for (std::uint16_t i = 0; i < kEach; ++i) {
                queue.push(Bytes{thread, static_cast<std::uint8_t>(i >> 8), static_cast<std::uint8_t>(i)});
            }
        });
    }
    std::array<int, kThreads> next{};
    for (int taken = 0; taken < kThreads * kEach;) {
        if (const auto command = queue.pop()) {
            ++taken;
            ASSERT_EQ((*command)[1] * 256 + (*command)[2], next.at((*command)[0])++);
        }
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    EXPECT_EQ(queue.size(), 0u);
}

}  // namespace
}  // namespace test
