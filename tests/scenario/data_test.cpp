#include <gtest/gtest.h>

#include <vector>

#include "dongle/headset_frames.h"
#include "scenario.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;

/// Data from end to end: what the dongle sent against what the callbacks received.
class Data : public test::Scenario {
  protected:
    void collect(std::chrono::milliseconds howLong) {
        start();
        context_.flags.recording = true;  // before the first packet can be there
        connect();
        clock_.sleepFor(howLong);
        line_.with([](dongle::Engine& e) { e.setSilent(true); });
        clock_.sleepFor(1s);  // the last of their frames is handled
    }

    /// Every packet's samples are those that the headset made for it, in order and without a gap.
    void expectSignal(int device, int channels) {
        std::vector<std::uint64_t> next(static_cast<std::size_t>(channels));
        std::size_t wrong = 0;
        for (const test::RawPacket& packet : received.rawPackets()) {
            if (packet.device != device) {
                continue;
            }
            std::uint64_t& n = next.at(static_cast<std::size_t>(packet.channel));
            for (const int sample : packet.samples) {
                wrong += sample != dongle::sampleValue(device, packet.channel, n++);
            }
        }
        EXPECT_EQ(wrong, 0u) << "device " << device;
    }
};

TEST_F(Data, EverySampleOfEveryChannelArrives) {
    settings.headsets[0].channels = 16;
    settings.headsets[0].sampleRate = 1000;
    settings.replies.streamDelay = 200ms;  // past the second headset's report
    settings.headsets[1].joinAfter = 10ms;
    settings.headsets[1].channels = 2;
    settings.headsets[1].sampleRate = 4000;
    collect(1700ms);
    const auto first = sent(1);
    const auto second = sent(2);
    EXPECT_GT(second.rawSent, 10u);
    EXPECT_EQ(received.rawCount(), first.rawSent + second.rawSent);
    EXPECT_EQ(received.postCount(), first.post + second.post);
    EXPECT_EQ(received.batteryCount(), first.battery + second.battery);
    expectSignal(1, 16);
    expectSignal(2, 2);
    EXPECT_EQ(log.count("-1 History data full"), 0);
}

TEST_F(Data, AFullLineInBurstsOfWholeFramesLosesNothing) {
    settings = dongle::defaultSettings(16);
    settings.replies.connectDuration = 20ms;
    // Past the last report: a text in front of data leaves a history, and with one a burst that a busy machine cuts in
    // two would lose a packet, as it should.
    settings.replies.streamDelay = 1s;
    settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    for (auto& headset : settings.headsets) {
        headset.joinAfter = headset.index == 1 ? 0ms : 1ms;
    }
    collect(3000ms);
    std::uint64_t rawSent = 0;
    for (int index = 0; index < 16; ++index) {
        rawSent += sent(index).rawSent;
    }
    EXPECT_GT(rawSent, 500u);
    EXPECT_EQ(received.rawCount(), rawSent);
    for (int index = 0; index < 16; ++index) {
        expectSignal(index, 8);
    }
}

TEST_F(Data, CallbacksMayBeExchangedAndCollectionToggledWhileDataFlows) {
    settings.headsets[0].sampleRate = 8000;
    start();
    connect();
    const RawDataEntry entry = context_.callbacks.rawData;
    for (int i = 0; i < 3000; ++i) {
        context_.receiveTables.reset();
        context_.flags.recording = i % 3 != 0;
        context_.callbacks.rawData = i % 2 == 0 ? nullptr : entry;
        clock_.sleepFor(1ms);
    }
    context_.callbacks.rawData = entry;
    context_.flags.recording = true;
    received.forgetData();
    EXPECT_TRUE(clock_.eventually([&] { return received.rawCount() > 50; }));
    for (const test::RawPacket& packet : received.rawPackets()) {
        ASSERT_LT(packet.channel, 8);
        ASSERT_EQ(packet.samples.size(), 112u);
    }
}

}  // namespace
}  // namespace kxorbeta_if
