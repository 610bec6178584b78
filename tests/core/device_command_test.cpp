#include "core/device_command.h"

#include "support/stream_builder.h"
#include "support/testing.h"

namespace test {
namespace {

using namespace kxorbeta_if;

// Where a payload of each length goes: tests/sdk, byte for byte.

TEST(DeviceCommand, BareWithoutTheEnvelopeAndNoneWithoutALink) {
    const Bytes payload = fromHex("FFFFFF");
    Flags flags;
    CommandQueue queue;
    EXPECT_FALSE(sendCommandWithPayload(flags, queue, 7, 0x10, payload));
    EXPECT_FALSE(sendCommand(flags, queue, 7, 0x10));
    EXPECT_EQ(queue.size(), 0u) << "no headset is connected";
    flags.linkActive = true;
    EXPECT_FALSE(sendCommandWithPayload(flags, queue, 7, 0x10, payload));
    EXPECT_FALSE(sendCommandWithPayload(flags, queue, 7, 0x10, Bytes(5)));
    EXPECT_EQ(queue.size(), 1u);
    // The sum wraps: 03 + FF + FF + FF + 10 = 310; the complement of 10 is EF.
    EXPECT_EQ(queue.pop(), fromHex("AACC03FFFFFF10EF"));
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
