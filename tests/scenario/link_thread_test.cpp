#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>

#include "core/device_command.h"
#include "core/orbeta_if.h"
#include "dongle/headset_frames.h"
#include "scenario.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;
using test::EventSeen;

constexpr const char* kFirst = "A1B2C3D4E501";
constexpr const char* kSecond = "A1B2C3D4E502";

std::string asString(const dongle::Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

/// A raw frame of channel 0 whose samples are all `value`, in the dongle's envelope.
std::string envelope(int device, std::uint8_t counter, std::int16_t value) {
    const std::vector<std::int16_t> samples(dongle::kSamplesPerFrame, value);
    return asString(dongle::dataEnvelope(device, dongle::singleChannelFrame(0, samples, counter)));
}

/// A link thread on a line that carries only what a test delivers.
class LinkThreadTest : public test::Scenario {
  protected:
    LinkThreadTest() {
        settings.line.textGap = 80ms;  // what is delivered apart must be read apart, on a busy machine too
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
        return test::eventually([&] { return values() == expected; }, 5s);
    }

    /// Lets what was delivered before be read: a marker frame behind it has arrived.
    void settle() {
        const std::size_t before = received.batteryCount();
        deliver(asString(dongle::dataEnvelope(9, dongle::batteryFrame(1, 1))));
        ASSERT_TRUE(test::eventually([&] { return received.batteryCount() > before; }));
    }
};

TEST_F(LinkThreadTest, CommandsLeaveOneByOneWithThirtyPassesBetween) {
    context_.timing.linkReadTimeoutMs = 5;
    connectAndRecord();
    const auto start = std::chrono::steady_clock::now();
    const Bytes longest(511, 'x');
    const Bytes tooLong(512, 'y');
    context_.commandQueue.push(tooLong);
    context_.commandQueue.push(longest);
    context_.commandQueue.push(std::vector<std::uint8_t>{'z'});
    ASSERT_TRUE(test::eventually([&] { return log.has("0 Cmd: 7A"); }));
    // Two waits of more than 30 quiet passes lie between the three: the one that is dropped takes its turn as well.
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2 * 31 * 5ms);
    std::string expected = "0 Cmd: ";
    for (int i = 0; i < 511; ++i) {
        expected += "78";
    }
    EXPECT_EQ(log.lines(), (std::vector<std::string>{expected, "0 Cmd: 7A"}));
    EXPECT_TRUE(test::eventually([&] { return dongle_->counters().bytesRead >= 25 + 512; }));
}

TEST_F(LinkThreadTest, ReportsReachTheirHandlersInOrder) {
    connectAndRecord();
    deliver("\x01\x02Service connected. A1B2C3D4E502,2\r\nAT+LIST=5,A1B2C3D4E501\r\n");
    // The parser has its turn last; it finds no frame in text.
    ASSERT_TRUE(test::eventually([&] { return log.has("-1 Parse data error, 9 left."); }));
    EXPECT_EQ(log.take(),
              (std::vector<std::string>{"0 Update device A1B2C3D4E501, index=5", "0 A1B2C3D4E502(2) connected.",
                                        "0 Add device A1B2C3D4E502, index=2", "-1 Parse data error, 9 left."}));
    ASSERT_EQ(received.events().size(), 3u);
    EXPECT_EQ(received.events().back(), (EventSeen{2, 2, kSecond}));

    deliver("Client disconnected,A1B2C3D4E502,19\r\n");
    ASSERT_TRUE(test::eventually([&] { return received.hasEvent(1); }));
    EXPECT_EQ(received.events().back(), (EventSeen{1, 0, kSecond}));

    // A text that ends with the pattern is not a report yet; neither is one that names nobody.
    deliver("noise Service connected.");
    deliver("Service connected.       \r\n");
    settle();
    EXPECT_EQ(received.events().size(), 4u);
}

TEST_F(LinkThreadTest, ReportsInFrontOfDataCostNoData) {
    connectAndRecord();
    deliver("Service connected. A1B2C3D4E502,2\r\n" + envelope(1, 0, 11));
    EXPECT_TRUE(receives({11}));
    EXPECT_TRUE(received.hasEvent(2));
}

TEST_F(LinkThreadTest, AFrameInTwoReadsIsWholeAndInThreeItIsNot) {
    connectAndRecord();
    const std::string frame = envelope(1, 0, 11);
    for (const std::size_t cut : {1u, 6u, 8u, 9u, 13u, 14u, 100u, 241u}) {
        SCOPED_TRACE(cut);
        received.forgetData();
        context_.receiveTables.reset();
        deliver(frame.substr(0, cut));
        deliver(frame.substr(cut));
        EXPECT_TRUE(receives({11}));
    }
    // The second piece is read with history in front, so what it leaves is not passed on: the third finds no start.
    received.forgetData();
    context_.receiveTables.reset();
    deliver(frame.substr(0, 50));
    deliver(frame.substr(50, 50));
    deliver(frame.substr(100) + envelope(1, 1, 22));
    EXPECT_TRUE(receives({22}));
    EXPECT_TRUE(log.has("-1 Parse sync word lost " + std::to_string(frame.size() - 100) + "."));
}

TEST_F(LinkThreadTest, AHistoryTheLeadInCannotHoldIsDropped) {
    connectAndRecord();
    const std::string payload(600, '\0');
    const std::string big = "AT+DAT1:600#" + payload;
    deliver(big.substr(0, 511));
    deliver(big.substr(511) + envelope(1, 0, 11));
    EXPECT_TRUE(receives({11}));
    EXPECT_FALSE(log.has("-1 History data full"));
    received.forgetData();
    context_.receiveTables.reset();
    deliver(big.substr(0, 512));
    deliver(big.substr(512) + envelope(1, 0, 22));
    EXPECT_TRUE(receives({22}));
    EXPECT_TRUE(log.has("-1 History data full"));
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
    ASSERT_TRUE(test::eventually([&] { return linkEnded(); }));
    EXPECT_TRUE(context_.flags.linkActive) << "the thread ends on its own; the flag is the host's";
    EXPECT_FALSE(context_.flags.linkStarted);
    EXPECT_EQ(log.lines().back(), "0 Main thread stop");
    EXPECT_FALSE(received.hasEvent(3));
    EXPECT_FALSE(received.hasEvent(5));
}

TEST_F(LinkThreadTest, AThreadThatIsNotWantedAnyMoreStopsBeforeItsFirstPass) {
    start();
    context_.flags.linkActive = false;
    context_.linkThreads.starting();
    runLinkThread(context_);
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
    context_.timing.linkReadTimeoutMs = 5;
    connectAndRecord();
    context_.port.close();
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(context_.flags.linkStarted);
    EXPECT_FALSE(linkEnded());
}

}  // namespace
}  // namespace kxorbeta_if
