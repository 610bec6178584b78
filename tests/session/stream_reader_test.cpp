#include "session/stream_reader.h"

#include <numeric>

#include "session/reference_reader.h"
#include "session/traced_reader.h"
#include "support/dice.h"
#include "support/stream_builder.h"
#include "support/testing.h"

namespace test {
namespace {

using velmora::StreamReader;

std::string frameLine(int index, int kind, const Bytes& frame) {
    return std::to_string(index) + " " + std::to_string(kind) + " " + hexOf(frame) + "\n";
}

Bytes raw(unsigned seed) {
    return rawFrame(singleChannel(3), samples(seed), static_cast<int>(seed));
}

struct Case {
    const char* name;
    Bytes bytes;
    std::string trace;
    std::uint64_t stray;
    bool scanning = false;
};

std::vector<Case> cases() {
    const Bytes battery = batteryFrame(7, 5);
    const Bytes post = postFrame({1, 8, 2, 4, 3, {1, 2, 3, 4, 5, 6, 7, 8}});
    const Bytes shortResponse = responseFrame(0xDD, 0x21, {1, 2, 3, 4});
    // The first eight bytes are a response as well.
    const Bytes longResponse = responseFrame(0xEE, 0x10, {0, 0, 0, 0, 0xEF, 1, 1, 1, 1, 1, 1, 1});
    const Bytes half = part(longResponse, 0, 8);
    const std::string connected = "Service connected. A1B2C3D4E5F6,3";
    const Bytes everything = bytesOf("AT+OK\r\nBootup\nFinish scan\nService connected. A1B2C3D4E5F6,1\nAT+DAT1:8#");
    return {
        {"every kind", envelope(15, joined({battery, raw(1), post, shortResponse})),
         frameLine(15, 2, battery) + frameLine(15, 0, raw(1)) + frameLine(15, 1, post) +
             frameLine(15, 3, shortResponse),
         0},
        {"a frame over three payloads, others between",
         joined({envelope(2, part(raw(1), 0, 3)), envelope(3, raw(2)), envelope(2, part(raw(1), 3, 200)),
                 bytesOf("Bo\n"), envelope(2, joined({part(raw(1), 200), raw(3)}))}),
         frameLine(3, 0, raw(2)) + "text 8 Bo\n" + frameLine(2, 0, raw(1)) + frameLine(2, 0, raw(3)), 0},
        {"data in a text, texts in data",
         joined({bytesOf("Service conn"), envelope(1, battery), bytesOf("ected. A1B2C3D4E5F6,3\r"), envelope(1, {}),
                 bytesOf("\nBoot"), envelope(0, battery), bytesOf("upBootup"), envelope(0, battery)}),
         frameLine(1, 2, battery) + "text 4 " + connected + "\n" + frameLine(0, 2, battery) +
             "text 1 Bootup\ntext 1 Bootup\n" + frameLine(0, 2, battery),
         0},
        {"a text of its own behind the beginning of another",
         joined({bytesOf("Service"), envelope(1, battery), bytesOf("Bootup\r\nClient disconnected,A1B2C3D4E5F6,19\n")}),
         frameLine(1, 2, battery) + "text 1 Bootup\ntext 5 Client disconnected,A1B2C3D4E5F6,19\n", 7},
        {"texts that only contain the sync word",
         bytesOf("AT+DATA\nx AT+DAT16:8#\nAT+DAT1:10241#\nAT+DAT:#\nAT+DAT 1:8#\n"),
         "text 8 AT+DATA\ntext 8 x AT+DAT16:8#\ntext 8 AT+DAT1:10241#\ntext 8 AT+DAT:#\ntext 8 AT+DAT 1:8#\n", 0},
        {"scan lines during a scan", bytesOf("Start scan\r\nA1B2C3D4E5F6,1 XAI-07\r\nFinish scan\r\n"),
         "text 8 Start scan\ntext 7 A1B2C3D4E5F6,1 XAI-07\ntext 2 Finish scan\n", 0, true},
        {"a payload with all texts and a header",
         joined({envelope(1, everything), envelope(1, battery), envelope(1, everything), bytesOf("AT+OK"), Bytes{1},
                 envelope(1, battery)}),
         frameLine(1, 2, battery) + "text 0 AT+OK\n" + frameLine(1, 2, battery), 2 * everything.size() + 1},
        {"stray bytes",
         joined({{0, 1, 'x', 2}, envelope(1, {9, 0x55, 0xAA}), envelope(1, battery), {3}, bytesOf("AT+OK")}),
         frameLine(1, 2, battery) + "text 0 AT+OK\n", 8},
        {"a frame whose rest begins like a frame",
         joined({envelope(1, joined({{0x55, 0x55, 0xE2, 0x83}, Bytes(20, 0x11)})),
                 envelope(1, joined({part(raw(1), 0, 8), Bytes(198, 0x22)}))}),
         frameLine(1, 0, joined({{0x55, 0x55, 0xE2, 0x83}, Bytes(20, 0x11), part(raw(1), 0, 8), Bytes(198, 0x22)})), 0},
        {"invalid channels", envelope(1, joined({{0x55, 0x55, 0xE2, 0x40}, battery, {0x55, 0x55, 0xE2, 0x3F}})),
         frameLine(1, 2, battery), 8},
        {"the length of a response that ends with the payload",
         joined({envelope(1, longResponse), envelope(1, half), envelope(1, joined({longResponse, battery}))}),
         frameLine(1, 4, longResponse) + frameLine(1, 3, half) + frameLine(1, 3, half) + frameLine(1, 2, battery), 8},
        {"a restart forgets half frames",
         joined({envelope(1, part(raw(1), 0, 100)), bytesOf("Bootup"), envelope(1, part(raw(1), 100))}),
         "text 1 Bootup\n", 230},
    };
}

TEST(StreamReader, ReadsTheSameWhereverItIsCut) {
    for (const Case& c : cases()) {
        for (std::size_t cut = 0; cut <= c.bytes.size(); ++cut) {
            SCOPED_TRACE(std::string(c.name) + ", cut at " + std::to_string(cut));
            TracedReader reader;
            reader.reader->setScanning(c.scanning);
            const std::size_t rest = cut == 0 ? 1 : c.bytes.size();  // byte by byte, or in two parts
            reader.read(part(c.bytes, 0, cut), 10);
            for (std::size_t from = cut; from < c.bytes.size(); from += rest) {
                reader.read(part(c.bytes, from, from + rest), 20);
            }
            ASSERT_EQ(reader.trace, c.trace);
            ASSERT_EQ(reader.reader->counts().strayBytes, c.stray);
            ASSERT_EQ(reader.reader->deadline(), StreamReader::kNever);
        }
    }
}

TEST(StreamReader, TellsWhenTheLastByteCame) {
    TracedReader reader;
    const Bytes one = envelope(1, joined({raw(1), raw(2)}));
    reader.read(part(one, 0, 100), 1);
    reader.read(part(one, 100, 300), 2);
    reader.read(joined({part(one, 300), bytesOf("AT+OKSer")}), 3);
    reader.read(bytesOf("vice connected.\n"), 4);
    EXPECT_EQ(reader.arrivals, (std::vector<int>{2, 3, 3, 4}));

    // Over many reads, none of which ends with a frame.
    Bytes line;
    std::vector<int> expected;
    for (unsigned i = 0; i < 30; ++i) {
        const Bytes frame = joined({Bytes(5000), raw(i)});
        append(line, envelope(3, frame));
        expected.push_back(static_cast<int>((line.size() + 36) / 37));
    }
    TracedReader slow;
    for (int read = 1; !line.empty(); ++read) {
        slow.read(part(line, 0, 37), read);
        line = part(line, std::min<std::size_t>(37, line.size()));
    }
    EXPECT_EQ(slow.arrivals, expected);
}

TEST(StreamReader, AFrameThatStaysIncompleteIsGivenUpAfterASecond) {
    const Bytes battery = batteryFrame(7, 5);
    TracedReader reader;
    reader.read(part(envelope(1, raw(1)), 0, 100), 100);
    EXPECT_EQ(reader.reader->deadline(), 1100 * kMillisecond);
    reader.read(joined({{0}, bytesOf("Bootup\r\n"), envelope(2, battery)}), 600);
    reader.read({}, 1099);
    EXPECT_EQ(reader.trace, "");
    reader.read({}, 1100);
    EXPECT_EQ(reader.trace, "text 1 Bootup\n" + frameLine(2, 2, battery));
    EXPECT_EQ(reader.arrivals, (std::vector<int>{600, 600}));
    EXPECT_EQ(reader.reader->counts().damagedHeaders, 1u);

    // What waited in the system while the host was stopped is not late.
    reader.trace.clear();
    const Bytes frame = envelope(1, raw(1));
    reader.read(part(frame, 0, 100), 2000);
    reader.read(part(frame, 100, 101), 5000, true);
    reader.read(part(frame, 101), 5900);
    EXPECT_EQ(reader.trace, frameLine(1, 0, raw(1)));

    // Half a header that stays alone was the beginning of a text.
    reader.read(bytesOf("AT+DAT1:2"), 6000);
    EXPECT_EQ(reader.reader->deadline(), 7000 * kMillisecond);
    reader.read({}, 7000);
    reader.read(bytesOf("AT+DAT99"), 7000);
    EXPECT_EQ(reader.reader->deadline(), StreamReader::kNever) << "no headset has that index";
    reader.read({0}, 7000);
    reader.read(bytesOf("AT+DAT1:2"), 7000);
    reader.read({}, 8000);
    reader.trace.clear();
    reader.read(bytesOf(" and more\n"), 8001);
    EXPECT_EQ(reader.trace, "text 8 AT+DAT1:2 and more\n");
}

TEST(StreamReader, WhatAHeadsetLeftBehindCanBeDropped) {
    TracedReader reader;
    reader.read(envelope(4, part(raw(1), 0, 50)), 1);
    reader.reader->dropPending(4);
    reader.reader->dropPending(4);
    EXPECT_EQ(reader.reader->counts().incompleteFrames[4], 1u);
    reader.read(joined({envelope(4, part(raw(1), 50)), bytesOf("Boot")}), 2);
    EXPECT_EQ(reader.trace, "");
    EXPECT_EQ(reader.reader->counts().strayBytes, 230u);
    reader.read(part(envelope(4, raw(2)), 0, 100), 3);
    reader.reader->reset();
    EXPECT_EQ(reader.reader->counts().strayBytes, 230u + 4 + 100) << "with the half text";
    EXPECT_EQ(reader.reader->deadline(), StreamReader::kNever);
    reader.read(joined({bytesOf("up\n"), envelope(4, raw(3))}), 4);
    EXPECT_EQ(reader.trace, "text 8 up\n" + frameLine(4, 0, raw(3)));
}

/// Some of the cases, one behind the other or in the middle of each other.
Bytes stream(Dice& dice) {
    static const std::vector<Case> all = cases();
    Bytes line;
    for (std::size_t items = 2 + dice.pick(8); items > 0; --items) {
        const Bytes& more = all[dice.pick(all.size())].bytes;
        const std::size_t at = dice.oneIn(3) ? dice.pick(line.size() + 1) : line.size();
        line.insert(line.begin() + static_cast<std::ptrdiff_t>(at), more.begin(), more.end());
    }
    return line;
}

/// Streams, whole and damaged, in random reads with random pauses, against the slow and obvious reader.
TEST(StreamReader, AgreesWithTheObviousReader) {
    for (unsigned seed = 0; seed < 3000; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Dice dice{std::mt19937(seed)};
        TracedReader reader;
        ReferenceReader reference;
        const bool damaged = seed % 3 != 0;
        int ms = 0;
        for (int streams = 0; streams < 2; ++streams) {
            const bool scanning = dice.pick(4) == 0;
            reader.reader->setScanning(scanning);
            reference.scanning = scanning;
            Bytes line = stream(dice);
            if (damaged) {
                damage(dice, line, 8);
            }
            const std::size_t longest = dice.pick(2) == 0 ? 30 : 2000;
            for (std::size_t from = 0, to = 0; from < line.size(); from = to) {
                to = from + 1 + dice.pick(longest);
                ms += static_cast<int>(damaged && dice.pick(20) == 0 ? dice.pick(1500) : dice.pick(3));
                reader.read(part(line, from, to), ms);
                reference.read(part(line, from, to), ms);
            }
            ms += 2000;
            reader.read({}, ms);
            reference.read({}, ms);
        }
        const auto& counts = reader.reader->counts();
        ASSERT_EQ(reader.trace, reference.trace);
        ASSERT_EQ(counts.strayBytes, reference.stray);
        ASSERT_EQ(counts.damagedHeaders, reference.damagedHeaders);
        ASSERT_EQ(std::accumulate(counts.incompleteFrames.begin(), counts.incompleteFrames.end(), std::uint64_t{0}),
                  reference.incomplete);
    }
}

}  // namespace
}  // namespace test
