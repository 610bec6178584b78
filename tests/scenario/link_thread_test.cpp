#include <new>

#include "core/device_command.h"
#include "core/orbeta_if.h"
#include "scenario.h"
#include "support/stream_builder.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;
using test::EventSeen;

constexpr const char* kSecond = "A1B2C3D4E502";

/// A raw frame of channel 0 whose samples are all `value`, in the dongle's envelope.
std::string envelope(int device, int counter, int value) {
    const std::vector<int> samples(test::kSlots, value);
    return test::stringOf(test::envelope(device, test::rawFrame(test::singleChannel(0), samples, counter)));
}

/// A link thread on a line that carries only what a test delivers.
class LinkThreadTest : public test::Scenario {
  protected:
    LinkThreadTest() {
        for (dongle::HeadsetSettings& headset : settings.headsets) {
            headset.sampleRate = 0;
            headset.batteryInterval = 0ms;
            headset.postInterval = 0ms;
        }
    }

    void connectAndRecord() {
        start();
        connect();
        context_.flags.recording = true;
        log.take();
    }

    /// What the raw data callback got, by the first sample of each packet.
    std::vector<int> values() const {
        std::vector<int> seen;
        for (const test::RawPacket& packet : received.rawPackets()) {
            seen.push_back(packet.samples.at(0));
        }
        return seen;
    }

    bool receives(const std::vector<int>& expected) {
        return clock_.eventually([&] { return values() == expected; });
    }

    /// Lets what was delivered before be read: a frame behind it has arrived.
    void settle() {
        const std::size_t before = received.batteryCount;
        deliver(test::stringOf(test::envelope(9, test::batteryFrame(1, 1))));
        ASSERT_TRUE(clock_.eventually([&] { return received.batteryCount > before; }));
    }
};

TEST_F(LinkThreadTest, CommandsLeaveOneByOneWithThirtyIterationsBetween) {
    connectAndRecord();
    const auto begin = clock_.now();
    const Bytes longest(511, 'x');
    const Bytes tooLong(512, 'y');
    context_.commandQueue.push(tooLong);
    context_.commandQueue.push(longest);
    context_.commandQueue.push(std::vector<std::uint8_t>{'z'});
    ASSERT_TRUE(clock_.eventually([&] { return log.has("0 Cmd: 7A"); }));
    // Two waits of 31 quiet iterations lie between the three, and at most one before them: the command that is dropped
    // takes its turn as well.
    EXPECT_GE(clock_.now() - begin, 2 * 31 * 20ms);
    EXPECT_LT(clock_.now() - begin, (3 * 31 + 1) * 20ms);  // eventually() looks now and then
    std::string expected = "0 Cmd: ";
    for (int i = 0; i < 511; ++i) {
        expected += "78";
    }
    EXPECT_EQ(log.lines(), (std::vector<std::string>{expected, "0 Cmd: 7A"}));
    EXPECT_EQ(line_.hostWrites().back(), "z");
    EXPECT_EQ(line_.hostWrites().end()[-2], std::string(511, 'x'));
}

TEST_F(LinkThreadTest, ReportsReachTheirHandlersInOrder) {
    connectAndRecord();
    deliver("\x01\x02Service connected. A1B2C3D4E502,2\r\nAT+LIST=5,A1B2C3D4E501\r\n");
    // The parser has its turn last; it finds no frame in text.
    ASSERT_TRUE(clock_.eventually([&] { return log.has("-1 Parse data error, 9 left."); }));
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{"0 Update device A1B2C3D4E501, index=5", "0 A1B2C3D4E502(2) connected.",
                                        "0 Add device A1B2C3D4E502, index=2", "-1 Parse data error, 9 left."}));
    ASSERT_EQ(received.events().size(), 3u);
    EXPECT_EQ(received.events().back(), (EventSeen{2, 2, kSecond}));

    // A text that ends with the pattern is not a report yet; neither is one that names nobody.
    deliver("noise Service connected.");
    deliver("Service connected.       \r\n");
    settle();
    EXPECT_EQ(received.events().size(), 3u);
}

TEST_F(LinkThreadTest, AThreadBeginsAfreshWhateverTheLastOneLeft) {
    const std::string leftover = test::stringOf(test::envelope(9, test::part(test::batteryFrame(1, 1), 0, 5)));
    connectAndRecord();
    deliver(leftover + envelope(1, 10, 11));
    ASSERT_TRUE(receives({11}));
    disconnectAll(context_);
    connectAndRecord();
    received.forget();
    settle();  // half a frame in front of this one would swallow it
    deliver(leftover + envelope(1, 12, 22));
    EXPECT_TRUE(receives({22})) << "nothing was lost in between";
    disconnectAll(context_);
    EXPECT_FALSE(context_.receiveTables.deviceStreams[9].empty());
    context_.receiveTables.reset();
    EXPECT_TRUE(context_.receiveTables.deviceStreams[9].empty()) << "no thread owns the queues any more";
}

TEST_F(LinkThreadTest, AnIterationThatFailsCostsItsBlockAndNoMore) {
    connectAndRecord();
    static std::atomic<bool> thrown;
    thrown = false;
    context_.callbacks.rawData = [](void*, int, int, int*, int) {
        thrown = true;
        throw std::bad_alloc();
    };
    const std::string frame = envelope(1, 0, 11);
    deliver(frame.substr(0, 100));
    deliver(frame.substr(100));
    ASSERT_TRUE(clock_.eventually([] { return thrown.load(); }));
    received.install(context_.callbacks);
    deliver(envelope(1, 1, 22));
    EXPECT_TRUE(receives({22})) << "the history of the failed iteration is gone with it";
}

TEST_F(LinkThreadTest, ARestartEndsTheThreadWithoutACallback) {
    start();
    connect();
    context_.callbacks.event = nullptr;
    context_.flags.recording = true;
    deliver("this block merely ends with Bootup");
    settle();
    EXPECT_FALSE(linkEnded());
    deliver("Bootup");
    ASSERT_TRUE(clock_.eventually([&] { return linkEnded(); }));
    EXPECT_TRUE(context_.flags.linkActive) << "the thread ends on its own; the flag is the host's";
    EXPECT_FALSE(context_.flags.linkStarted);
    EXPECT_EQ(log.lines().back(), "0 Main thread stop");
    EXPECT_FALSE(received.hasEvent(3));
    EXPECT_FALSE(received.hasEvent(5));
}

TEST_F(LinkThreadTest, AThreadThatIsNotWantedAnyMoreStopsBeforeItsFirstIteration) {
    start();
    context_.flags.linkActive = false;
    startLinkThread(context_);
    ASSERT_TRUE(clock_.eventually([&] { return linkEnded(); }));
    EXPECT_EQ(received.events(), (std::vector<EventSeen>{{4, 0, ""}, {5, 0, ""}}));
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"0 Main thread start", "0 Main thread stop"}));
    EXPECT_FALSE(context_.flags.linkStarted);
}

TEST_F(LinkThreadTest, TrafficIsDumpedOnlyWhenAskedFor) {
    const test::LogCapture everything(9);
    connectAndRecord();
    const std::string frame = envelope(1, 0, 11);
    deliver(frame);
    EXPECT_TRUE(receives({11}));
    const auto quiet = everything.lines();
    EXPECT_TRUE(std::none_of(quiet.begin(), quiet.end(), [](const std::string& l) { return l.starts_with("8 REV"); }));
    context_.flags.rawDump = true;
    deliver(frame.substr(0, 8));
    deliver(frame.substr(8));
    EXPECT_TRUE(receives({11, 11}));
    EXPECT_TRUE(everything.has("8 REV:41542B444154313A"));
    EXPECT_TRUE(everything.has("8 HIST8:41542B444154313A"));
}

TEST_F(LinkThreadTest, APortThatIsClosedUnderTheThreadStopsNothing) {
    for (const bool hangUp : {false, true}) {
        connectAndRecord();
        if (hangUp) {
            line_.with([](dongle::Engine& e) { e.hangUp(); });
        } else {
            context_.port.close();
        }
        // Failing reads return at once, yet an iteration keeps its 20 ms, and commands their 31 iterations.
        const auto begin = clock_.now();
        context_.commandQueue.push(std::vector<std::uint8_t>{'a'});
        context_.commandQueue.push(std::vector<std::uint8_t>{'b'});
        ASSERT_TRUE(clock_.eventually([&] { return log.has("0 Cmd: 62"); }));
        EXPECT_GE(clock_.now() - begin, 31 * 20ms);
        EXPECT_LE(clock_.now() - begin, 2 * 31 * 20ms + 20ms);
        EXPECT_TRUE(context_.flags.linkStarted);
        EXPECT_FALSE(linkEnded());
        disconnectAll(context_);
        EXPECT_TRUE(linkEnded());
    }
}

}  // namespace
}  // namespace kxorbeta_if
