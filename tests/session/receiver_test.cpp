#include "session/receiver.h"

#include <cstring>

#include "dongle/headset_frames.h"
#include "support/testing.h"

namespace {

constexpr velmora::Nanoseconds kSecond = 1'000'000'000;
constexpr velmora::Nanoseconds kStep = 10'000'000;

/// A receiver on a time of its own.
class ReceiverTest : public testing::Test, protected velmora::Receiver::Listener {
  protected:
    ReceiverTest() { receiver.opened(now); }

    void feed(std::string_view bytes) {
        now += kStep;
        std::memcpy(receiver.room().data(), bytes.data(), bytes.size());
        receiver.received(bytes.size(), now);
        queue.publish();
    }
    void rest(velmora::Nanoseconds time) {
        for (const velmora::Nanoseconds end = now + time; now < end;) {
            now += kStep;
            receiver.received(0, now);
        }
        queue.publish();
    }
    static std::string packet(int index, int channel, unsigned counter, int sample = 0) {
        const std::vector<std::int16_t> samples(112, static_cast<std::int16_t>(sample));
        return data(index, dongle::singleChannelFrame(channel, samples, static_cast<std::uint8_t>(counter)));
    }
    static std::string data(int index, const dongle::Bytes& payload) {
        const auto bytes = dongle::dataEnvelope(index, payload);
        return {bytes.begin(), bytes.end()};
    }
    std::vector<velmora_record> taken(std::size_t max = 1000) {
        std::vector<velmora_record> records(max);
        records.resize(queue.take(records.data(), sizeof records[0], max));
        for (const velmora_record& record : records) {
            accounted += record.lost + record.dropped + (record.kind == VELMORA_RAW ? 1 : 0);
        }
        return records;
    }
    /// A line for each event: what happened, to which number, at which index, its address.
    std::string events() {
        std::string text;
        for (const velmora_record& record : taken()) {
            if (record.kind == VELMORA_EVENT) {
                text += (text.empty() ? "" : " ") + std::string(1, "?+-RGO"[record.code]);
                if (record.headset >= 0) {
                    text += std::to_string(record.headset) + "@" + std::to_string(record.index) +
                            reinterpret_cast<const char*>(record.bytes);
                }
            }
        }
        return text;
    }

    /// Connects headset 0 with the index 1, and opens the gate for its data.
    void startOne() {
        feed("Service connected. A00000000001,1\n");
        receiver.start(now);
        EXPECT_EQ(events(), "+0@1A00000000001");
    }

    struct Step {
        const char* what;
        std::string said;
        const char* events;
    };
    void expectEvents(std::initializer_list<Step> steps) {
        for (const Step& step : steps) {
            feed(step.said);
            EXPECT_EQ(events(), step.events) << step.what;
        }
    }

    void conversationMoved() override { ++moved; }
    void responded(const velmora_record& response) override { response_ = response; }
    void left(int index) override { lastLeft = index; }
    void restarted() override { ++restarts; }
    void said(std::string_view text) override { lastText = text; }

    velmora::RecordQueue queue{400};
    velmora::Receiver receiver{queue, *this};
    velmora::Nanoseconds now = 100 * kSecond;
    std::uint64_t accounted = 0;  // raw packets taken, and those that they say were dropped
    int moved = 0, restarts = 0, lastLeft = -1;
    std::string lastText;
    velmora_record response_{};
};

TEST_F(ReceiverTest, WhoIsConnectedAndUnderWhichNumber) {
    rest(3 * kSecond);  // what a program before this one left would have shown
    expectEvents({
        {"first", "Service connected. A00000000001,3\n", "+0@3A00000000001"},
        {"again", "Service connected. a00000000001,3\n", ""},
        {"another", "Service connected. B00000000002,4\n", "+1@4B00000000002"},
        {"under another index", "Service connected. A00000000001,5\n", "+0@5A00000000001"},
        {"its index is taken", "Service connected. C00000000003,4\n", "-1@4B00000000002 +2@4C00000000003"},
        {"without an index", "Service connected. D00000000004\n", "+3@0D00000000004"},
        {"damaged index", "Service connected. E00000000005,x\n", ""},
        {"index too high", "Service connected. E00000000005,16\n", ""},
        {"short address", "Service connected. E0000000,1\n", ""},
        {"one leaves", "Client disconnected,A00000000001,19\r\n", "-0@5A00000000001"},
        {"it has left already", "Client disconnected,A00000000001,19\r\n", ""},
        {"a stranger leaves", "Client disconnected,F00000000006,19\r\n", ""},
        {"and comes back", "Service connected. A00000000001,6\n", "+0@6A00000000001"},
        {"a list", "AT+LIST=6,A00000000001;7,B00000000002\n", "+1@7B00000000002 -2@4C00000000003 -3@0D00000000004"},
        {"an empty list", "AT+LIST=none\n", "-0@6A00000000001 -1@7B00000000002"},
        {"one more", "Service connected. A00000000001,2\n", "+0@2A00000000001"},
        {"restart", "Bootup", "-0@2A00000000001 R"},
    });
    EXPECT_EQ(restarts, 1);
    EXPECT_EQ(lastLeft, 2);
    EXPECT_EQ(lastText, "Bootup");
    // Data of an index that nobody has reported since: a headset without an address, not counted as connected.
    receiver.start(now);
    feed(packet(2, 0, 1));
    const auto records = taken();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].headset, 4);
    EXPECT_FALSE(receiver.headsets().anyConnected());
    receiver.lineIsGone(now, 5);
    queue.publish();
    EXPECT_EQ(events(), "G");
}

TEST_F(ReceiverTest, AHeadsetThatWasInferredKeepsItsNumberWhenItsAddressComes) {
    expectEvents({
        {"data alone", packet(3, 0, 1) + packet(4, 0, 1) + packet(5, 0, 1), "+0@3 +1@4 +2@5"},
        {"its report", "Service connected. A00000000001,3\n", "+0@3A00000000001"},
        {"another's, in a list", "AT+LIST=3,A00000000001;4,B00000000002\n", "+1@4B00000000002 -2@5"},
        {"under another index", "Service connected. A00000000001,5\n", "+0@5A00000000001"},
        {"data of a new one", packet(6, 0, 1), "+3@6"},
        {"an address that has a number", "Service connected. B00000000002,6\n", "-3@6 +1@6B00000000002"},
        {"restart", "Bootup", "-0@5A00000000001 -1@6B00000000002 R"},
        {"data of nobody", packet(3, 0, 1), "+4@3"},
    });
}

TEST_F(ReceiverTest, AnIndexThatAHeadsetHadIsFreeForAnother) {
    rest(3 * kSecond);
    expectEvents({
        {"first", "Service connected. A00000000001,3\n", "+0@3A00000000001"},
        {"under another index", "Service connected. A00000000001,5\n", "+0@5A00000000001"},
        {"its old index is taken", "Service connected. B00000000002,3\n", "+1@3B00000000002"},
        {"the two swap", "Service connected. A00000000001,3\n", "-1@3B00000000002 +0@3A00000000001"},
        {"the two swap", "Service connected. B00000000002,5\n", "+1@5B00000000002"},
    });
    // A drop is over when somebody else is where the headset was.
    receiver.conversation().beginDrop("a00000000001");
    expectEvents({{"taken", "Service connected. C00000000003,3\n", "-0@3A00000000001 +2@3C00000000003"}});
    EXPECT_EQ(receiver.conversation().result(), VELMORA_OK);
    EXPECT_EQ(moved, 1);
}

TEST_F(ReceiverTest, WhatIsOnItsWayDoesNotUndoADrop) {
    expectEvents({{"left by an ended program", packet(3, 0, 1), "+0@3"}});
    receiver.allDropped(now);
    expectEvents({{"dropped", packet(3, 0, 2), "-0@3"}, {"still on its way", packet(3, 0, 3), ""}});
}

TEST_F(ReceiverTest, AWiderElementIsFilledUpWithZeros) {
    feed("Service connected. A00000000001,1\nService connected. B00000000002,2\n");
    struct Wide {
        velmora_record record;
        std::uint64_t more;
    } wide[2];
    wide[0].more = wide[1].more = 99;
    ASSERT_EQ(queue.take(&wide[0].record, sizeof(Wide), 2), 2u);
    EXPECT_EQ(wide[1].record.headset, 1);
    EXPECT_EQ(wide[0].more + wide[1].more, 0u);
}

TEST_F(ReceiverTest, TheGateIsForDataAndNotForResponses) {
    feed("Service connected. A00000000001,1\n");
    const std::string all = packet(1, 0, 1) + data(1, dongle::batteryFrame(9, 1)) +
                            data(1, dongle::postFrame(dongle::postValues(1, 2))) +
                            data(1, dongle::shortResponse(0xEE, 0x21, {}));
    const auto kinds = [&] {
        feed(all);
        std::string text;
        for (const velmora_record& record : taken()) {
            text += std::to_string(record.kind);
        }
        return text;
    };
    taken();
    EXPECT_EQ(kinds(), "4");
    EXPECT_EQ(response_.code, 0x21);
    EXPECT_EQ(response_.index, 1);
    receiver.start(now + 1);
    EXPECT_EQ(kinds(), "1324");
    receiver.start(now + 2 * kStep);  // what arrived before is not the host's, although it is looked at later
    EXPECT_EQ(kinds(), "4");
    receiver.stop();
    EXPECT_EQ(kinds(), "4");
}

TEST_F(ReceiverTest, LossesStandInFrontOfTheNextPacket) {
    startOne();
    std::string seen;  // counter, sample, losses and flags of each
    for (const unsigned counter : {250u, 251u, 254u, 254u, 0u}) {
        rest(440'000'000);
        feed(packet(1, 5, counter, static_cast<int>(counter)));
        for (const velmora_record& r : taken()) {
            seen += std::to_string(r.counter) + " " + std::to_string(r.sample) + " " + std::to_string(r.lost) + " " +
                    std::to_string(r.flags) + "\n";
            EXPECT_TRUE(r.channel == 5 && r.channels == 1 && r.count == 112 && r.time == now);
            EXPECT_EQ(r.samples[111], static_cast<int>(counter));
        }
    }
    EXPECT_EQ(seen, "250 0 0 2\n251 112 0 0\n254 448 2 0\n0 672 1 0\n");
    velmora_headset_statistics statistics{};
    receiver.headsetStatistics(0, statistics);
    const velmora_channel_statistics& channel = statistics.channels[5];
    EXPECT_TRUE(channel.packets == 4 && channel.lost == 3 && channel.repeated == 1);
}

/// The host is stopped in the middle of a frame, for longer than a round of the counter lasts.
TEST_F(ReceiverTest, AStoppedHostKeepsTheFrameAndItsTimeLineDoesNotJump) {
    startOne();
    for (int number = 0; number < 400; ++number) {
        const std::string frame = packet(1, 0, static_cast<unsigned>(number));
        feed(frame.substr(0, 100));
        now += number == 200 ? 12 * kSecond : kStep;
        feed(frame.substr(100, 50));
        feed(frame.substr(150));
        const auto records = taken();
        ASSERT_EQ(records.size(), 1u) << number;
        ASSERT_TRUE(records[0].sample == number * 112 && records[0].lost == 0) << number;
        ASSERT_EQ(records[0].flags, number == 0 ? VELMORA_FLAG_FIRST : 0) << number;
    }
}

TEST_F(ReceiverTest, OneOverrunEventForEachTimeThatTheHostFallsBehind) {
    startOne();
    unsigned counter = 0;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 480; ++i) {
            if (i > 450 && i % 3 == 0) {  // a little room does not make it another overrun
                taken(2);
            }
            if (i == 440) {  // the line loses some while the queue drops
                rest(3 * kStep);
                counter += 3;
            }
            feed(packet(1, 0, counter++));
        }
        EXPECT_EQ(events(), "O") << round;
        feed(packet(1, 0, counter++));
        const auto next = taken();
        ASSERT_EQ(next.size(), 1u);
        EXPECT_GT(next[0].dropped, 0u);
        EXPECT_EQ(next[0].sample, std::int64_t{counter - 1} * 112);
        EXPECT_EQ(accounted, counter);
    }
    for (int i = 0; i < 410; ++i) {
        feed(packet(1, 0, counter++));
    }
    receiver.start(now);
    feed(packet(1, 0, counter++));
    taken();
    feed(packet(1, 0, counter++));
    EXPECT_EQ(taken().at(0).flags, VELMORA_FLAG_FIRST) << "that one was dropped";
}

TEST_F(ReceiverTest, DamageInAFrameCostsThatFrameAlone) {
    startOne();
    std::string tooLong = packet(1, 0, 0);
    tooLong.replace(tooLong.find("230"), 3, "930");
    feed(tooLong);
    for (unsigned counter = 1; counter < 8; ++counter) {
        feed(packet(1, 0, counter));
    }
    // A restart in mid-frame; the headset connects again.
    feed(packet(1, 0, 8).substr(0, 100));
    feed("Bootup\r\nService connected. A00000000001,1\n" + packet(1, 0, 0));
    rest(2 * kSecond);
    std::string seen;
    for (const velmora_record& r : taken()) {
        seen += r.kind == VELMORA_RAW ? std::to_string(r.counter) : std::string(1, "?+-RGO"[r.code]);
    }
    EXPECT_EQ(seen, "1234567-R+0");
}

TEST_F(ReceiverTest, AHeadsetThatIsConnectedWhenTheHostConnectsItBeginsAnew) {
    startOne();
    feed(packet(1, 0, 0) + packet(1, 0, 1) + "Service connected. A00000000001,1\n" + packet(1, 0, 2));
    receiver.conversation().beginConnect({{.address = "A00000000001"}});
    feed("Service connected. A00000000001,1\nGroup connection finish\r\n" + packet(1, 0, 2) + packet(1, 0, 3));
    EXPECT_EQ(taken().at(3).flags, VELMORA_FLAG_FIRST | VELMORA_FLAG_ESTIMATED);
    EXPECT_EQ(accounted, 5u) << "none repeated, none lost";
}

TEST_F(ReceiverTest, EventsFindRoomWhateverElseComes) {
    startOne();
    for (int i = 0; i < 1000; ++i) {
        feed(packet(1, 0, static_cast<unsigned>(i)) + data(1, dongle::batteryFrame(9, 1)) +
             data(1, dongle::shortResponse(0xEE, 0x21, {})));
    }
    feed("Client disconnected,A00000000001,19\r\n");
    EXPECT_EQ(events(), "O -0@1A00000000001");
}

TEST_F(ReceiverTest, ScanLinesCountDuringAScan) {
    receiver.beginScan();
    feed("Start scan\nA00000000001,1 XAI-01\r\nA00000000001,0 later\nB0:00,1 short\nB00000000002,0 other name\n");
    feed("Finish scan");
    std::string found;
    for (const auto& headset : receiver.conversation().found()) {
        found += std::string(headset.name) + "=" + std::to_string(headset.option) + ";";
    }
    EXPECT_EQ(found, "XAI-01=1;other name=0;");
    EXPECT_EQ(receiver.conversation().result(), VELMORA_OK);
    EXPECT_GT(moved, 0);
    receiver.finishConversation(true);
    feed("C00000000003,1 XAI-03\n");
    EXPECT_EQ(receiver.headsets().headsets().size(), 2u);
    feed("Service connected. B00000000002,4\n");
    EXPECT_EQ(events(), "+1@4B00000000002");
    EXPECT_EQ(receiver.headsets().headsets()[1].name, "other name");
}

}  // namespace
