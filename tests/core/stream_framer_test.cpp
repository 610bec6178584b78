#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "support/link_model.h"
#include "support/receive_session.h"

namespace test {
namespace {

// One battery frame of headset 2 in its envelope: a header of 10 bytes, a payload of 8.
const Bytes kFrame = envelope(2, batteryFrame(0x57, 5));

/// A block from its short form: '@' stands for that frame, '^' for its payload.
Bytes block(std::string_view shortForm) {
    Bytes bytes;
    for (const char c : shortForm) {
        append(bytes, c == '@' ? kFrame : c == '^' ? batteryFrame(0x57, 5) : Bytes{static_cast<std::uint8_t>(c)});
    }
    return bytes;
}

/// A trace from its short form, words whose letters say:
///   i10,8,18  a header was read (its length, the payload's, all that is left)   w  the same, and the frame waits
///   b2 call of headset 2    f18 both for that frame    L3 bytes lost    U a frame was waited for in vain
///   E9, P9 end of a search    M no mark    X mark too far    C no colon    N no length
std::string lines(const std::string& shortForm) {
    std::istringstream words(shortForm);
    std::string all;
    for (std::string word; words >> word;) {
        int a = 0, payload = 8, left = 0;
        std::sscanf(word.c_str() + 1, "%d,%d,%d", &a, &payload, &left);
        const auto numbers = [&](int header, int length, int rest) {
            return "header_length =" + std::to_string(header) + ", frame_len = " + std::to_string(length) +
                   " payload_len = " + std::to_string(rest - header) + "  length = " + std::to_string(rest) + ".\n";
        };
        const std::string info = "8 Parse info, ", error = "-1 Parse data error, ", number = std::to_string(a);
        const char c = word[0];
        all += c == 'i' ? info + numbers(a, payload, left)
               : c == 'w'
                   ? info + numbers(a, payload, left) + "7 Not enough data,wait next read. " + numbers(a, payload, left)
               : c == 'b' ? batteryCall(a, 0x57, 500)
               : c == 'f' ? info + numbers(10, 8, a) + batteryCall(2, 0x57, 500)
               : c == 'L' ? "-1 Parse sync word lost " + number + ".\n"
               : c == 'U' ? "-1 Parse sync error was not fixed.\n"
               : c == 'E' ? error + number + " left.\n"
               : c == 'P' ? "0 No payload, Left data. " + number + "\n"
               : c == 'M' ? error + "no # mark.\n"
               : c == 'X' ? error + "sync lost 3.\n"
               : c == 'C' ? error + "convert frame len failed2.\n"
                          : error + "convert frame len failed.\n";
    }
    return all;
}

TEST(StreamFramer, HeadersHistoryAndSyncErrorState) {
    // Block and lines, and where it matters what is left as history and the state before and after.
    auto table = rows(
        R"(@@ => f36 f18 | xyz@ => L3 f18 | AATAT+DA@ => L8 f18 | @~A~@#@ => f58 L3 f37 L1 f18 | AT+DAT:#@ => i8,0,26 f18
        AT+DAT2:0#@ => i10,0,28 f18 | AT+DAT +2:` +8#^ => i15,8,23 b2 | AT+DAT2x:8:9#^ => i13,8,21 b2
        AT+DATx:-#@ => i10,0,28 f18 | AT+DAT00002:0008#^ => i17,8,25 b2 | AT+DAT000002:0008#^@ => X L25 f18
        AT+DAT28#@ => C L8 f18 | AT+DAT#@ => C L6 f18 | AT+DAT2:-8#@ => N L10 f18 | AT+DAT@ => i16,8,24 b0
        AT+DAT15:8#^ => i11,8,19 b15 | AT+DAT16:8#^@ => i11,8,37 f18 | AT+DAT-1:8#^@ => i11,8,37 f18
        AT+DAT99999999:8#^@ => i17,8,43 f18 | @AT+DAT2:8 8 8 8 8 => f35 M => - => 0 => 0
        xAT+DAT2:~8#@ => M => - => 0 => 0 | @ => f18 => old => 5 => 0
        AT+DAT2:99999999#1 => w17,99999999,18 => AT+DAT2:99999999#1 => 0 => 5
        @AT+DAT3:8#1234567 => f35 w10,8,17 => AT+DAT3:8#1234567 => 0 => 5
        AT+DAT3:8# => w10,8,10 => AT+DAT3:8# => 5 => 5 | AT+DAT2:8 => - => AT+DAT2:8 => 5 => 5
        @#AT+DAT2: => f27 => #AT+DAT2: => 0 => 0 | AT+DAT123# => C P9 => T+DAT123# => 0 => 0
        AT+DAT123#. => C E9 => +DAT123#. => 0 => 0 | x@ => U L1 f18 => old => 5 => 0
        AT+DAT28#@ => C U L8 f18 => old => 5 => 0 | abcdefghijkl => U E9 => defghijkl => 5 => 0
        AT+DAT2:8.. => M => - => 5 => 5)");
    for (auto& field : table) {
        SCOPED_TRACE(field[0]);
        if (field.size() == 2) {
            field.insert(field.end(), {"old", "0", "0"});
        }
        ReceiveSession session;
        session.history.keep(bytesOf("old"));
        session.tables.syncErrorState = std::stoi(field[3]);
        EXPECT_EQ(session.parse(block(field[0])), lines(field[1]));
        EXPECT_TRUE(std::ranges::equal(session.history.bytes(), bytesOf(field[2])));
        EXPECT_EQ(session.tables.syncErrorState, std::stoi(field[4]));
    }
}

TEST(StreamFramer, SeveralBlocksWithTheirHistory) {
    const Bytes large = envelope(1, Bytes(600, 1));
    ReceiveSession session;
    LinkModel link(session.framer, session.history);
    const auto read = [&](const Bytes& bytes) {
        link.feed(bytes);
        return session.take();
    };
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(read(part(kFrame, 0, 12)), lines("w10,8,12"));
        EXPECT_EQ(read(part(kFrame, 12)), lines("f18"));
    }
    // A read that began with history passes none on, so the next begins in the middle of a frame.
    EXPECT_EQ(read(part(kFrame, 0, 8)), "");
    EXPECT_EQ(read(joined({part(kFrame, 8), part(kFrame, 0, 12)})), lines("f30 w10,8,12"));
    EXPECT_EQ(read(joined({part(kFrame, 12), kFrame})), lines("U L6 f18"));
    // 512 bytes and more are given up, 511 are not.
    EXPECT_EQ(read(part(large, 0, 512)), lines("w12,600,512"));
    EXPECT_EQ(read(joined({part(large, 512), kFrame})), lines("U L100 f18"));
    EXPECT_EQ(read(part(large, 0, 511)), lines("w12,600,511"));
    EXPECT_EQ(read(joined({part(large, 511), kFrame})), lines("i12,600,630 f18"));
}

TEST(StreamFramer, DumpsTrafficWhenAskedTo) {
    const std::string text = "41542B444154323A332341420A", taken = "8 Frame2:41420A\n";
    const std::string frame = "8 Frame2:" + hexOf(block("^")) + "\n", call = lines("b2");
    std::string stray;
    for (int i = 0; i < 100; ++i) {
        stray += "xA";  // found in pieces
    }
    const struct {
        Bytes block;
        int state;
        std::string lines;  // behind the dump of the block
    } cases[] = {
        {fromHex(text), 0, lines("i10,3,13") + taken},
        {fromHex(text), 5,
         lines("i10,3,13") + "8 Parse error 5 was fixed, length: 13.\n0 Check Data: " + text + "\n" + taken},
        // Stray bytes are counted anew after each frame, and no more than 128 of them are shown.
        {block("xAz@A2@"), 0,
         lines("L3") + "0 Lost Data: 78417A\n" + lines("i10,8,38") + frame + call + lines("L2") +
             "0 Lost Data: 4132\n" + lines("i10,8,18") + frame + call},
        {block(stray + "@"), 0,
         lines("L200") + "0 Lost Data: " + hexOf(bytesOf(stray.substr(0, 128))) + "\n" + lines("i10,8,18") + frame +
             call},
    };
    for (const auto& c : cases) {
        ReceiveSession session;
        session.flags.rawDump = true;
        session.tables.syncErrorState = c.state;
        EXPECT_EQ(session.parse(c.block), "8 ParseData:" + hexOf(c.block) + "\n" + c.lines);
    }
}

TEST(StreamFramer, FramesInPiecesAreCompletedByTheirOwnHeadset) {
    const Post post{1, 8, 2, 4, 3, {1, 2, 3, 4, 5, 6, 7, 8}};
    const Bytes response = responseFrame(0xEE, 9, Bytes(12, 0x31));
    const Bytes frames = joined({Packet{4, 1, false, 5, 1}.bytes(), postFrame(post), response});
    const auto whole = [&](int device) {
        return rawCall(device, 1, samples(1)) + postCall(post) + responseCall(device, response);
    };
    for (std::size_t cut = 0; cut <= frames.size(); ++cut) {
        SCOPED_TRACE(cut);
        ReceiveSession session(-2);
        // Another headset's half frame lies in between and must not get into it.
        EXPECT_EQ(session.parse(joined({envelope(4, part(frames, 0, cut)), envelope(3, part(frames, 0, 100)),
                                        envelope(4, part(frames, cut))})),
                  whole(4));
        EXPECT_EQ(session.parse(joined({envelope(3, part(frames, 100)), envelope(4, block("^"))})),
                  whole(3) + lines("b4"));
    }
    ReceiveSession session(-2);
    std::string calls;
    for (const std::uint8_t byte : frames) {
        calls += session.parse(envelope(4, {byte}));
    }
    EXPECT_EQ(calls, whole(4));
}

/// Every way to end a stream early, with bytes behind the end that would complete what is cut off.
TEST(StreamFramer, TruncatedStreamsGiveWhatIsComplete) {
    const Bytes response = responseFrame(0xDD, 1, {1, 2, 3, 4});
    const Post post{1, 2, 3, 0, 5, {9, 8, 7, 6, 5, 4, 3, 2}};
    for (const bool framed : {true, false}) {
        const int device = framed ? 6 : 0;
        const std::pair<Bytes, std::string> items[] = {
            {batteryFrame(7, 8), batteryCall(device, 7, 800)},
            {Packet{0, 15, false, 1, 3}.bytes(), rawCall(device, 15, samples(3))},
            {response, responseCall(device, response)},
            {postFrame(post), postCall(post)},
        };
        Bytes stream;
        std::vector<std::pair<std::size_t, std::string>> complete{{0, ""}};  // frames end here, after these calls
        for (const auto& [frame, call] : items) {
            append(stream, framed ? envelope(device, frame) : frame);
            complete.emplace_back(stream.size(), complete.back().second + call);
        }
        Bytes withGuard = joined({stream, Bytes(32, '#')});
        for (std::size_t length = 1; length <= stream.size(); ++length) {
            SCOPED_TRACE(testing::Message() << "framed " << framed << ", " << length << " bytes");
            const auto last =
                std::find_if(complete.rbegin(), complete.rend(), [&](const auto& end) { return end.first <= length; });
            // What is left of a frame is kept, except a header whose mark is missing although there was room for it.
            Bytes kept = part(stream, last->first, length);
            if (framed && kept.size() >= 10 && std::find(kept.begin(), kept.end(), '#') == kept.end()) {
                kept.clear();
            }
            for (const bool guarded : {false, true}) {  // with bytes behind it, or in memory of exactly its size
                const ExactBlock exact(part(stream, 0, length));
                ReceiveSession session(-2);
                session.flags.ctlFraming = framed;
                session.framer.parse(guarded ? std::span(withGuard).first(length) : exact.span(), session.history);
                EXPECT_EQ(session.take(), last->second);
                EXPECT_TRUE(std::ranges::equal(session.history.bytes(), kept));
            }
        }
        EXPECT_EQ(withGuard, joined({stream, Bytes(32, '#')}));
    }
}

TEST(StreamFramer, ParserEntryFollowsTheEnvelopeFlag) {
    ReceiveSession session(-2);
    EXPECT_EQ(session.parse(block("^@")), lines("b2")) << "bare frames are stray bytes there";
    session.history.keep(bytesOf("old"));
    session.parse({});
    EXPECT_EQ(session.history.length(), 0);
    session.flags.ctlFraming = false;
    EXPECT_EQ(session.parse(block("^@")), lines("b0 b0")) << "envelopes are stray bytes here";
    // The direct decoder always says what is left, also when it is nothing.
    for (const auto& [text, left] : {std::pair{"^", 0}, {"^U", 1}, {"^UUUUUUU", 7}, {"", 0}, {"12345", 5}}) {
        session.history.keep(bytesOf("old"));
        session.parse(block(text));
        EXPECT_EQ(session.history.length(), left) << text;
    }
}

}  // namespace
}  // namespace test
