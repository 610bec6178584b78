// What viewers are sent and who may look on: hand-over, boxes that are full, tokens, hosts.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "view/access.h"
#include "view/feed.h"
#include "view/outbox.h"

namespace {

using namespace velmora::view;

template <typename Number>
Number at(const Message& message, std::size_t place) {
    Number number{};
    std::memcpy(&number, message.bytes.data() + place, sizeof number);  // this machine is little-endian as the stream
    return number;
}

velmora_record rawRecord(std::int64_t sample, int headset = 0) {
    velmora_record record{};
    record.kind = VELMORA_RAW;
    record.headset = static_cast<std::int16_t>(headset);
    record.sample = sample;
    record.channels = 1;
    record.count = 112;
    record.samples[0] = static_cast<std::int16_t>(sample);
    return record;
}

TEST(Messages, APacketStandsWhereTheDescriptionSaysWithAllItsSamples) {
    velmora_record record = rawRecord(-5, 3);
    record.time = 1'234'567'890'123;
    record.lost = 7;
    record.dropped = 9;
    record.channels = 15;
    record.count = 7;
    record.flags = VELMORA_FLAG_MULTI;
    record.samples[104] = -32768;
    velmora_record impossible = rawRecord(1);
    impossible.channels = 100;  // no more is taken than there is
    impossible.count = 60'000;
    Batch batch(Kind::Samples);
    batch.add(record);
    batch.add(impossible);
    const Message message = batch.take();
    EXPECT_EQ(message.packets, 2U);
    EXPECT_EQ(message.bytes[0], 1);
    EXPECT_EQ(message.bytes[1], 2);
    EXPECT_EQ(at<std::uint16_t>(message, 2), 2);
    EXPECT_EQ(at<std::int64_t>(message, 16), -5);
    EXPECT_EQ(at<std::int64_t>(message, 24), record.time);
    EXPECT_EQ(at<std::uint32_t>(message, 32), 7U);
    EXPECT_EQ(at<std::uint32_t>(message, 36), 9U);
    EXPECT_EQ(at<std::int16_t>(message, 40), 3);
    EXPECT_EQ(message.bytes[43], 15);
    EXPECT_EQ(at<std::uint16_t>(message, 44), 7);
    EXPECT_EQ(at<std::int16_t>(message, 48 + 2 * 104), -32768);
    const std::size_t second = 48 + 2 * 105;
    EXPECT_EQ(at<std::int64_t>(message, second), 1);
    EXPECT_EQ(message.bytes.size(),
              second + 32 + 2U * message.bytes[second + 27] * at<std::uint16_t>(message, second + 28));
}

TEST(Messages, TextsEndWithAZeroAndAreNeverCutInsideALetter) {
    const std::string letters = "\xC3\xA4";  // two bytes
    std::string longText = "xy";             // so that a letter lies across each end
    while (longText.size() < 100) {
        longText += letters;
    }
    const Message event = eventMessage(5, -1, kMarkEvent, longText);
    ASSERT_EQ(event.bytes.size(), 16U + 80U);
    const std::string shown(reinterpret_cast<const char*>(event.bytes.data()) + 24);
    EXPECT_EQ(shown, longText.substr(0, 70));
    Hello hello;
    hello.headsets = {{0, 1, true, "A1B2C3D4E501", longText}, {1, -1, false, std::string(40, 'f'), ""}};
    hello.marks = {{'b', "blink"}};
    hello.recording = true;
    const Message first = helloMessage(hello);
    ASSERT_EQ(first.bytes.size(), 32U + 2 * 80 + 72);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(first.bytes.data()) + 32 + 80 + 8), std::string(15, 'f'));
    EXPECT_EQ(at<std::int16_t>(first, 32 + 80 + 2), -1);
    EXPECT_STREQ(reinterpret_cast<const char*>(first.bytes.data()) + 32 + 160 + 8, "blink");
}

TEST(Messages, OnlyAWholeRequestForAMarkIsOne) {
    const auto parse = [](std::vector<std::uint8_t> bytes) { return parseMarkRequest(bytes); };
    EXPECT_EQ(parse({1, 1, 2, 1}), 258U);
    for (const auto& wrong : std::vector<std::vector<std::uint8_t>>{
             {}, {1}, {1, 1, 0}, {1, 1, 0, 0, 0}, {2, 1, 0, 0}, {1, 0, 0, 0}, {1, 2, 0, 0}}) {
        EXPECT_EQ(parse(wrong), std::nullopt) << wrong.size();
    }
}

// The two threads as they are in the program: whatever the one puts in, the other gets it, or is told of it.
TEST(Feed, HandsOverInOrderAndTellsWhatFoundNoRoom) {
    constexpr std::int64_t kRecords = 40'000;
    Feed feed;
    feed.setWatched(true);
    std::atomic<bool> done{false};
    std::thread receiving([&] {
        for (std::int64_t i = 0; i < kRecords; ++i) {
            const velmora_record record = rawRecord(i);
            feed.take({&record, 1});
        }
        done = true;
    });
    std::int64_t next = 0;
    std::uint64_t told = 0;
    const auto takeAll = [&] {
        while (const SharedMessage message = feed.next()) {
            if (message->kind == Kind::Skipped) {
                told += at<std::uint64_t>(*message, 24);
                next += at<std::int64_t>(*message, 24);
            } else if (message->kind == Kind::Samples) {
                EXPECT_EQ(at<std::int64_t>(*message, 16), next++);
            }
        }
    };
    while (!done) {
        takeAll();
        std::this_thread::yield();
    }
    receiving.join();
    takeAll();
    feed.put(statusMessage(0, {}));  // what is missing is told with the next message
    takeAll();
    EXPECT_EQ(next, kRecords) << told << " of them told as left out";

    // Nobody takes anything: the one that puts goes on, and what fits comes out.
    const velmora_record record = rawRecord(0);
    for (int i = 0; i < 1000; ++i) {
        feed.take({&record, 1});
    }
    std::uint64_t packets = 0;
    told = 0;
    const auto count = [&] {
        while (const SharedMessage message = feed.next()) {
            packets += message->packets;
            told += message->kind == Kind::Skipped ? at<std::uint64_t>(*message, 24) : 0;
        }
    };
    count();
    EXPECT_LT(packets, 1000U);
    feed.put(statusMessage(0, {}));
    count();
    EXPECT_EQ(packets + told, 1000U);
}

TEST(Feed, PutsEventsBetweenTheDataBeforeAndBehindThem) {
    Feed feed;
    velmora_record records[] = {rawRecord(0), rawRecord(1), {}, rawRecord(2)};
    records[2].kind = VELMORA_EVENT;
    records[2].code = VELMORA_EVENT_DISCONNECTED;
    std::memcpy(records[2].bytes, "A1B2C3D4E501", 12);
    feed.take(records);
    const SharedMessage kept = feed.next();
    ASSERT_TRUE(kept) << "those who look on only later are to know it as well";
    EXPECT_EQ(kept->kind, Kind::Event);
    EXPECT_EQ(eventCode(*kept), VELMORA_EVENT_DISCONNECTED);
    EXPECT_EQ(feed.next(), nullptr) << "nobody looks on";
    feed.setWatched(true);
    feed.take(records);
    const SharedMessage before = feed.next();
    const SharedMessage event = feed.next();
    const SharedMessage behind = feed.next();
    ASSERT_TRUE(before && event && behind);
    EXPECT_EQ(before->packets, 2U);
    EXPECT_EQ(event->kind, Kind::Event);
    EXPECT_STREQ(reinterpret_cast<const char*>(event->bytes.data()) + 24, "A1B2C3D4E501");
    EXPECT_EQ(behind->packets, 1U);
}

TEST(Outbox, IsBoundedKeepsRoomForEventsAndTellsWhereSomethingIsMissing) {
    Outbox outbox;
    const auto batch = [] {
        Batch made(Kind::Samples);
        for (int i = 0; i < 100; ++i) {
            made.add(rawRecord(i));
        }
        return std::make_shared<const Message>(made.take());
    }();
    constexpr std::uint64_t kBatches = 1000;
    for (std::uint64_t i = 0; i < kBatches; ++i) {
        outbox.put(batch);
    }
    outbox.put(std::make_shared<const Message>(eventMessage(0, 0, 2, "left")));
    std::size_t bytes = 0;
    std::uint64_t taken = 0;
    std::vector<Kind> kinds;
    std::uint64_t told = 0;
    while (!outbox.empty()) {
        const SharedMessage message = outbox.take();
        bytes += message->bytes.size();
        taken += message->packets;
        told += message->kind == Kind::Skipped ? at<std::uint64_t>(*message, 24) : 0;
        if (message->kind != Kind::Samples) {
            kinds.push_back(message->kind);
        }
    }
    EXPECT_LE(bytes, Outbox::kMostBytes);
    EXPECT_GT(taken, 0U);
    EXPECT_EQ(taken + told, kBatches * 100);
    EXPECT_EQ(kinds, (std::vector<Kind>{Kind::Skipped, Kind::Event})) << "and only what came behind it";
    outbox.put(batch);
    EXPECT_EQ(outbox.take()->kind, Kind::Samples) << "there is room again";
}

TEST(Access, ATokenIsGoodOnceAndItsCookieFromThenOn) {
    Access access(8080);
    Access other(8080);
    const std::string token = access.token();
    EXPECT_EQ(token.size(), 64U);
    EXPECT_NE(token, other.token());
    EXPECT_EQ(access.exchange(""), std::nullopt);
    EXPECT_EQ(access.exchange(other.token()), std::nullopt);
    EXPECT_EQ(access.exchange(token.substr(1)), std::nullopt);
    const auto cookie = access.exchange(token);
    ASSERT_TRUE(cookie);
    EXPECT_EQ(access.exchange(token), std::nullopt);
    EXPECT_NE(access.token(), token);
    EXPECT_TRUE(access.admits("velmora_8080=" + *cookie));
    EXPECT_TRUE(access.admits("a=b; velmora_8080=old; velmora_8080=" + *cookie + "; c=d"));
    const std::vector<std::string> others = {"",
                                             *cookie,
                                             "velmora_8081=" + *cookie,
                                             "velmora_8080=",
                                             "velmora_8080=" + *cookie + "0",
                                             "velmora_8080=" + token,
                                             "xvelmora_8080=" + *cookie,
                                             ";;;=;",
                                             "velmora_8080"};
    for (const std::string& wrong : others) {
        EXPECT_FALSE(access.admits(wrong)) << wrong;
    }
    for (int i = 0; i < 100; ++i) {  // many browsers one after the other: the first is forgotten
        EXPECT_TRUE(access.exchange(access.token()));
    }
    EXPECT_FALSE(access.admits("velmora_8080=" + *cookie));
}

TEST(Access, OnlyTheVeryAddressOfTheConnectionIsAHost) {
    EXPECT_TRUE(hostIsOurs("127.0.0.1:8080", "127.0.0.1", true, 8080));
    EXPECT_TRUE(hostIsOurs("localhost:8080", "127.0.0.1", true, 8080));
    EXPECT_TRUE(hostIsOurs("[::1]:8080", "[::1]", true, 8080));
    EXPECT_TRUE(hostIsOurs("192.168.1.2", "192.168.1.2", false, 80)) << "browsers leave that port out";
    for (const char* wrong : {"", "127.0.0.1", "127.0.0.1:8081", "example.com", "example.com:8080",
                              "127.0.0.1:8080.com", "x127.0.0.1:8080", "127.0.0.1:8080:8080"}) {
        EXPECT_FALSE(hostIsOurs(wrong, "127.0.0.1", true, 8080)) << wrong;
    }
    EXPECT_FALSE(hostIsOurs("localhost:8080", "192.168.1.2", false, 8080));
    EXPECT_TRUE(originIsOurs("", "127.0.0.1:8080"));
    EXPECT_TRUE(originIsOurs("http://127.0.0.1:8080", "127.0.0.1:8080"));
    for (const char* wrong : {"null", "https://127.0.0.1:8080", "http://127.0.0.1", "http://example.com"}) {
        EXPECT_FALSE(originIsOurs(wrong, "127.0.0.1:8080")) << wrong;
    }
}

}  // namespace
