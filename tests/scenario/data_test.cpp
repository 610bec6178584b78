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

    /// How many packets hold what their headset has made for them, in order; all others must stand for lost ones.
    std::uint64_t genuinePackets() {
        std::map<std::pair<int, int>, std::uint64_t> next;  // sample, by device and channel
        std::uint64_t genuine = 0;
        for (const test::RawPacket& packet : received.rawPackets()) {
            if (packet.samples == std::vector<int>(112)) {
                continue;
            }
            std::uint64_t& n = next[{packet.device, packet.channel}];
            const auto value = [&](std::uint64_t i) {
                return int{dongle::sampleValue(packet.device, packet.channel, i)};
            };
            for (int lost = 0; lost < 20 && packet.samples[0] != value(n); ++lost) {
                n += 112;
            }
            EXPECT_TRUE(std::all_of(packet.samples.begin(), packet.samples.end(),
                                    [&](int sample) { return sample == value(n++); }))
                << packet.device << " " << packet.channel;
            ++genuine;
        }
        return genuine;
    }
};

TEST_F(Data, AFullLineLosesNothingUnlessReadsCutFrames) {
    // A block that began with history passes none on, so a packet is lost wherever two reads in a row end inside one.
    const struct {
        const char* line;
        bool gaps;
        std::size_t largestRead;
        bool loses;
    } lines[] = {{"bursts of whole frames", true, SIZE_MAX, false},
                 {"no gaps", false, SIZE_MAX, false},
                 {"no gaps, and reads that end inside frames", false, 3777, true}};
    for (const auto& line : lines) {
        SCOPED_TRACE(line.line);
        settings = dongle::defaultSettings(16);
        settings.replies.connectDuration = 20ms;
        // Past the last report: a text in front of data leaves a history as well.
        settings.replies.streamDelay = 1s;
        settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
        settings.line.gaps = line.gaps;
        line_.largestRead = line.largestRead;
        for (auto& headset : settings.headsets) {
            headset.joinAfter = headset.index == 1 ? 0ms : 1ms;
            headset.channels = 1 + headset.index;
        }
        received.forget();
        collect(3000ms);
        std::uint64_t rawSent = 0, othersSent = 0;
        for (int index = 0; index < 16; ++index) {
            const dongle::HeadsetCounters counters = sent(index);
            rawSent += counters.rawSent;
            othersSent += counters.post + counters.battery;
        }
        const std::uint64_t genuine = genuinePackets();
        EXPECT_TRUE(line.loses || received.postCount + received.batteryCount == othersSent);
        EXPECT_GT(genuine, rawSent * 95 / 100);
        EXPECT_EQ(genuine < rawSent, line.loses) << genuine << " of " << rawSent;
        disconnectAll(context_);
    }
}

TEST_F(Data, AHeadsetThatDropsOutInMidStreamDisturbsNobodyAndComesBack) {
    settings.replies.streamDelay = 200ms;
    settings.headsets[1].joinAfter = 10ms;
    settings.headsets[1].disconnectAfter = 1s;
    settings.headsets[1].rejoinAfter = 500ms;
    settings.headsets[1].rejoinIndex = 7;
    collect(1900ms);
    const std::string second = settings.headsets[1].address;
    std::vector<test::EventSeen> events = received.events();
    std::erase_if(events, [&](const test::EventSeen& event) { return event.detail != second; });
    EXPECT_EQ(events, (std::vector<test::EventSeen>{{2, 2, second}, {1, 0, second}, {2, 7, second}}));
    EXPECT_GT(sent(7).rawSent, 0u);
    EXPECT_EQ(received.rawCount.load(), sent(1).rawSent + sent(7).rawSent) << "both lives of the second";
    EXPECT_EQ(genuinePackets(), received.rawCount.load());
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
    received.forget();
    EXPECT_TRUE(clock_.eventually([&] { return received.rawCount > 50; }));
    for (const test::RawPacket& packet : received.rawPackets()) {
        ASSERT_LT(packet.channel, 8);
        ASSERT_EQ(packet.samples.size(), 112u);
    }
}

}  // namespace
}  // namespace kxorbeta_if
