#include "support/receive_session.h"

#include "support/testing.h"

namespace test {
namespace {

using namespace std::string_literals;

// One battery frame of headset 2 and its envelope: a header of 10 bytes, a payload of 8.
const std::string kPayload = stringOf(batteryFrame(0x57, 5));
const std::string kFrame = stringOf(envelope(2, batteryFrame(0x57, 5)));

// What a session's trace says.
std::string battery(int device) {
    return batteryCall(device, 0x57, 500);
}
std::string headerNumbers(int header, int payload, int left) {
    return "header_length =" + std::to_string(header) + ", frame_len = " + std::to_string(payload) +
           " payload_len = " + std::to_string(left - header) + "  length = " + std::to_string(left) + ".\n";
}
/// The lengths of the header and of the payload that it announces, and all bytes that are left, header included.
std::string headerRead(int header, int payload, int left) {
    return "8 Parse info, " + headerNumbers(header, payload, left);
}
std::string frameWaits(int header, int payload, int left) {
    return headerRead(header, payload, left) + "7 Not enough data,wait next read. " +
           headerNumbers(header, payload, left);
}
/// kFrame is read, with `left` bytes from its beginning.
std::string frameTaken(int left) {
    return headerRead(10, 8, left) + battery(2);
}
std::string lost(int bytes) {
    return "-1 Parse sync word lost " + std::to_string(bytes) + ".\n";
}
std::string nothingFound(int left) {
    return "-1 Parse data error, " + std::to_string(left) + " left.\n";
}
std::string invalidHeaderAtEnd(int left) {
    return "0 No payload, Left data. " + std::to_string(left) + "\n";
}
const std::string kWaitedInVain = "-1 Parse sync error was not fixed.\n";
const std::string kNoDelimiter = "-1 Parse data error, no # mark.\n";
const std::string kDelimiterTooFar = "-1 Parse data error, sync lost 3.\n";
const std::string kNoColon = "-1 Parse data error, convert frame len failed2.\n";
const std::string kNegativeLength = "-1 Parse data error, convert frame len failed.\n";

TEST(StreamFramer, HeadersHistoryAndSyncErrorState) {
    constexpr int kWaited = kxorbeta_if::ReceiveTables::kWaitedForData;
    const struct {
        std::string block, trace;
        std::string history = "old";  // afterwards; before it is "old"
        int before = 0, after = 0;    // the sync error state
    } cases[] = {
        {kFrame + kFrame, frameTaken(36) + frameTaken(18)},
        {"xyz" + kFrame, lost(3) + frameTaken(18)},
        {"AATAT+DA" + kFrame, lost(8) + frameTaken(18)},
        {kFrame + "\0A\0"s + kFrame + "#" + kFrame,
         frameTaken(58) + lost(3) + frameTaken(37) + lost(1) + frameTaken(18)},
        // Numbers are read as far as they go; what is none counts as 0.
        {"AT+DAT:#" + kFrame, headerRead(8, 0, 26) + frameTaken(18)},
        {"AT+DAT2:0#" + kFrame, headerRead(10, 0, 28) + frameTaken(18)},
        {"AT+DAT  +2:\t  +8#" + kPayload, headerRead(17, 8, 25) + battery(2)},
        {"AT+DAT2x:8:9#" + kPayload, headerRead(13, 8, 21) + battery(2)},
        {"AT+DATx:-#" + kFrame, headerRead(10, 0, 28) + frameTaken(18)},
        {"AT+DAT00002:0008#" + kPayload, headerRead(17, 8, 25) + battery(2)},
        {"AT+DAT000002:0008#" + kPayload + kFrame, kDelimiterTooFar + lost(25) + frameTaken(18)},
        {"AT+DAT28#" + kFrame, kNoColon + lost(8) + frameTaken(18)},
        {"AT+DAT#" + kFrame, kNoColon + lost(6) + frameTaken(18)},
        {"AT+DAT2:-8#" + kFrame, kNegativeLength + lost(10) + frameTaken(18)},
        {"AT+DAT" + kFrame, headerRead(16, 8, 24) + battery(0)},
        // Headsets 0 to 15; frames of others are skipped whole.
        {"AT+DAT15:8#" + kPayload, headerRead(11, 8, 19) + battery(15)},
        {"AT+DAT16:8#" + kPayload + kFrame, headerRead(11, 8, 37) + frameTaken(18)},
        {"AT+DAT-1:8#" + kPayload + kFrame, headerRead(11, 8, 37) + frameTaken(18)},
        {"AT+DAT99999999:8#" + kPayload + kFrame, headerRead(17, 8, 43) + frameTaken(18)},
        // A search that meets the end or a zero byte before a delimiter gives the rest up.
        {kFrame + "AT+DAT2:8 8 8 8 8", frameTaken(35) + kNoDelimiter, ""},
        {"xAT+DAT2:\0008#"s + kFrame, kNoDelimiter, ""},
        {"AT+DAT2:8..", kNoDelimiter, "", kWaited, kWaited},
        // What is incomplete is kept.
        {kFrame, frameTaken(18), "old", kWaited},
        {"AT+DAT2:99999999#1", frameWaits(17, 99999999, 18), "AT+DAT2:99999999#1", 0, kWaited},
        {kFrame + "AT+DAT3:8#1234567", frameTaken(35) + frameWaits(10, 8, 17), "AT+DAT3:8#1234567", 0, kWaited},
        {"AT+DAT3:8#", frameWaits(10, 8, 10), "AT+DAT3:8#", kWaited, kWaited},
        {"AT+DAT2:8", "", "AT+DAT2:8", kWaited, kWaited},
        {kFrame + "#AT+DAT2:", frameTaken(27), "#AT+DAT2:"},
        {"AT+DAT123#", kNoColon + invalidHeaderAtEnd(9), "T+DAT123#"},
        {"AT+DAT123#.", kNoColon + nothingFound(9), "+DAT123#."},
        // A frame that was waited for is not there.
        {"x" + kFrame, kWaitedInVain + lost(1) + frameTaken(18), "old", kWaited},
        {"AT+DAT28#" + kFrame, kNoColon + kWaitedInVain + lost(8) + frameTaken(18), "old", kWaited},
        {"abcdefghijkl", kWaitedInVain + nothingFound(9), "defghijkl", kWaited},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.block);
        ReceiveSession session;
        session.history.keep(bytesOf("old"));
        session.tables.syncErrorState = c.before;
        EXPECT_EQ(session.parse(bytesOf(c.block)), c.trace);
        EXPECT_TRUE(std::ranges::equal(session.history.bytes(), bytesOf(c.history)));
        EXPECT_EQ(session.tables.syncErrorState, c.after);
    }
}

TEST(StreamFramer, SeveralBlocksWithTheirHistory) {
    const std::string large = stringOf(envelope(1, Bytes(600, 1)));
    const std::string start = kFrame.substr(0, 12), end = kFrame.substr(12), startWaits = frameWaits(10, 8, 12);
    const struct {
        std::string block, trace;
    } reads[] = {
        {start, startWaits},
        {end, frameTaken(18)},
        {start, startWaits},
        {end, frameTaken(18)},
        // A read that began with history passes none on, so the next begins in the middle of a frame.
        {kFrame.substr(0, 8), ""},
        {kFrame.substr(8) + start, frameTaken(30) + startWaits},
        {end + kFrame, kWaitedInVain + lost(6) + frameTaken(18)},
        // 512 bytes and more are given up, 511 are not.
        {large.substr(0, 512), frameWaits(12, 600, 512)},
        {large.substr(512) + kFrame, "-1 History data full\n" + kWaitedInVain + lost(100) + frameTaken(18)},
        {large.substr(0, 511), frameWaits(12, 600, 511)},
        {large.substr(511) + kFrame, headerRead(12, 600, 630) + frameTaken(18)},
    };
    ReceiveSession session;
    for (const auto& read : reads) {
        EXPECT_EQ(session.read(bytesOf(read.block)), read.trace);
    }
}

TEST(StreamFramer, DumpsTrafficWhenAskedTo) {
    const std::string hex = "41542B444154323A332341420A";  // three bytes for headset 2, which are no frame
    const std::string dumped = "8 Frame2:" + hexOf(bytesOf(kPayload)) + "\n" + battery(2);
    std::string garbage;
    for (int i = 0; i < 100; ++i) {
        garbage += "xA";  // found in pieces
    }
    const struct {
        std::string block, trace;  // behind the dump of the block
        int state = 0;
    } cases[] = {
        {stringOf(fromHex(hex)), headerRead(10, 3, 13) + "8 Frame2:41420A\n"},
        {stringOf(fromHex(hex)),
         headerRead(10, 3, 13) + "8 Parse error 5 was fixed, length: 13.\n0 Check Data: " + hex + "\n8 Frame2:41420A\n",
         5},
        // Garbage is counted anew after each frame, and no more than 128 bytes of it are shown.
        {"xAz" + kFrame + "A2" + kFrame, lost(3) + "0 Lost Data: 78417A\n" + headerRead(10, 8, 38) + dumped + lost(2) +
                                             "0 Lost Data: 4132\n" + headerRead(10, 8, 18) + dumped},
        {garbage + kFrame,
         lost(200) + "0 Lost Data: " + hexOf(bytesOf(garbage.substr(0, 128))) + "\n" + headerRead(10, 8, 18) + dumped},
    };
    for (const auto& c : cases) {
        ReceiveSession session;
        session.flags.rawDump = true;
        session.tables.syncErrorState = c.state;
        EXPECT_EQ(session.parse(bytesOf(c.block)), "8 ParseData:" + hexOf(bytesOf(c.block)) + "\n" + c.trace);
    }
}

TEST(StreamFramer, FramesInPiecesAreCompletedByTheirOwnHeadset) {
    const Post post{1, 8, 2, 4, 3, {1, 2, 3, 4, 5, 6, 7, 8}};
    const Bytes response = responseFrame(0xEE, 9, Bytes(12, 0x31));
    const Bytes frames = joined({Packet{.channel = 1, .seed = 1}.bytes(), postFrame(post), response});
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
        EXPECT_EQ(session.parse(joined({envelope(3, part(frames, 100)), envelope(4, bytesOf(kPayload))})),
                  whole(3) + battery(4));
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
            {Packet{.channel = 15, .seed = 3}.bytes(), rawCall(device, 15, samples(3))},
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
            // What is left of a frame is kept, except a header whose delimiter is missing although there was room for
            // it.
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
    EXPECT_EQ(session.parse(bytesOf(kPayload + kFrame)), battery(2)) << "bare frames are garbage there";
    session.history.keep(bytesOf("old"));
    session.parse({});
    EXPECT_EQ(session.history.length(), 0);
    session.flags.ctlFraming = false;
    EXPECT_EQ(session.parse(bytesOf(kPayload + kFrame)), battery(0) + battery(0)) << "envelopes are garbage here";
    // The direct decoder always says what is left, also when it is nothing.
    const std::pair<std::string, int> blocks[] = {
        {kPayload, 0}, {kPayload + "U", 1}, {kPayload + "UUUUUUU", 7}, {"", 0}, {"12345", 5}};
    for (const auto& [text, left] : blocks) {
        session.history.keep(bytesOf("old"));
        session.parse(bytesOf(text));
        EXPECT_EQ(session.history.length(), left) << text;
    }
}

}  // namespace
}  // namespace test
