#include <optional>

#include "support/receive_session.h"
#include "support/testing.h"

namespace test {
namespace {

/// Runs for both decoders. The device decoder is looked at for headset 5.
class FrameDecoder : public testing::TestWithParam<bool> {
  protected:
    std::string lossOfChannel(int channel, int lost, int received, int expected) const {
        const std::string channelText = std::to_string(channel), lostText = std::to_string(lost);
        return direct ? "-1 [B]Lost data chan " + channelText + " , " + lostText + " \n"
                      : "-1 [B]Lost data chan dev:5 chan:" + channelText + " , num: " + lostText +
                            " packet_cnt: " + std::to_string(received) + " , " + std::to_string(expected) + "\n";
    }
    std::string lossOfSeveralChannels(int lost) const {
        return (direct ? "-1 [D]Lost data chan " : "-1 [D]Lost data chan dev:5  num: ") + std::to_string(lost) + " \n";
    }
    std::string zeros(int channel, int count) const {
        return rawCall(device, channel, std::vector<int>(static_cast<std::size_t>(count)));
    }
    /// Each way of the counter on fresh tables: the packet that makes it expected, the one received, and the next.
    void expectLosses(Packet packet, bool merged, const std::string& substitute) const;

    const bool direct = GetParam();
    const int device = direct ? 0 : 5;
};
INSTANTIATE_TEST_SUITE_P(Both, FrameDecoder, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Direct" : "Device"; });

TEST_P(FrameDecoder, ChannelByteSaysWhoseSamplesTheyAre) {
    for (unsigned byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        ReceiveSession session;
        // A frame that is not one costs a byte; none of the others looks like a start, and the last seven are too few.
        const bool valid = byte >= 0x80 || (byte >= 0x40 && byte % 16 != 0);
        std::string expected;
        if (byte >= 0x80) {
            expected = rawCall(device, static_cast<int>(byte % 16), samples(1));
        } else if (byte < 0x40) {
            const std::string hex = (byte < 16 ? "" : std::to_string(byte / 16)) + "0123456789abcdef"[byte % 16];
            expected = "-1 Parse data error, channel invalid " + hex + ".\n";
        } else if (!valid) {
            expected = "-1 Parse data error, channel is 0.\n";
        }
        const Bytes frame = rawFrame(static_cast<std::uint8_t>(byte), samples(1), 9);
        EXPECT_EQ(session.decode(direct, frame), valid ? 230u : 223u);
        EXPECT_EQ(session.take(), expected) << "the first packet of several channels is held back";
    }
}

struct CounterStep {
    int expected, received;
    std::optional<int> loss = {};  ///< as it is logged: across the wrap of the counter one less than it is
    int substitutes = 0;
};
constexpr CounterStep kCounterSteps[] = {{11, 11},      {11, 12, 1, 1}, {11, 13, 2, 2}, {11, 14, 3}, {1, 200, 199},
                                         {11, 10, 254}, {11, 5, 249},   {255, 255},     {0, 0},      {0, 1, 1, 1},
                                         {255, 0, 0},   {255, 1, 1, 1}, {255, 2, 2, 2}, {255, 3, 3}, {254, 0, 1, 1}};

void FrameDecoder::expectLosses(Packet packet, bool merged, const std::string& substitute) const {
    const bool several = packet.channels > 0;
    packet.device = device;
    for (const CounterStep& step : kCounterSteps) {
        SCOPED_TRACE(testing::Message() << "expected " << step.expected << ", received " << step.received);
        ReceiveSession session;
        session.flags.mergedChannels = merged;
        const auto expectTrace = [&](int counter, const std::string& before) {
            packet.counter = counter;
            ++packet.seed;
            session.decode(direct, packet.bytes());
            EXPECT_EQ(session.take(), before + packet.calls(merged));
        };
        if (several) {  // the first packet is held back, and then still expected
            packet.counter = step.expected;
            session.decode(direct, packet.bytes());
            EXPECT_EQ(session.take(), "");
        } else {
            expectTrace((step.expected + 255) % 256, "");
        }
        std::string before;
        if (step.loss) {
            before = several ? lossOfSeveralChannels(*step.loss)
                             : lossOfChannel(packet.channel, *step.loss, step.received, step.expected);
        }
        for (int i = 0; i < step.substitutes; ++i) {
            before += substitute;
        }
        expectTrace(step.received, before);
        expectTrace((step.received + 1) % 256, "");  // its successor is expected next
    }
}

TEST_P(FrameDecoder, LossesAndTheirSubstitutes) {
    for (const bool merged : {false, true}) {
        SCOPED_TRACE(testing::Message() << "merged " << merged);
        expectLosses({.channel = 3}, merged, zeros(3, 112));
        for (const int channels : {1, 2, 3, 5, 8, 15}) {
            SCOPED_TRACE(testing::Message() << channels << " channels");
            // The two decoders take the merged layout in opposite senses for what they make up.
            std::string substitute;
            if (merged == direct) {
                substitute = zeros(-channels, 112 * channels);
            } else {
                for (int channel = 0; channel < channels; ++channel) {
                    substitute += zeros(channel, 112 / channels);
                }
            }
            expectLosses({.channels = channels}, merged, substitute);
        }
    }
}

/// A callback that ends collection, or takes itself out, in the middle of what makes up for a loss of two packets.
TEST_P(FrameDecoder, SubstitutesAreAllDeliveredOnceBegun) {
    for (const int channels : {0, 5}) {
        for (const bool takesItselfOut : {false, true}) {
            SCOPED_TRACE(testing::Message() << "channels " << channels << ", takes itself out " << takesItselfOut);
            ReceiveSession session(-2);
            session.flags.mergedChannels = direct;  // one call for each lost packet of several channels
            Packet packet{.channel = 3, .channels = channels, .counter = 10, .seed = 1};
            session.decode(direct, packet.bytes());
            int calls = 0;
            session.onRaw = [&] {
                ++calls;
                if (takesItselfOut) {
                    session.callbacks.rawData = nullptr;
                } else {
                    session.flags.recording = false;
                }
            };
            packet.counter = channels > 0 ? 12 : 13;
            session.decode(direct, packet.bytes());
            EXPECT_EQ(calls, 2) << session.take();
        }
    }
}

TEST_P(FrameDecoder, SmallFrames) {
    const std::string battery = batteryCall(device, 1, 200), post = "66051 16777215 8388608 0 5 6 7 255\n";
    const auto response = [&](const char* frame) { return responseCall(device, fromHex(frame)); };
    const std::string error = "-1 Parse data error, ";
    const struct {
        const char* bytes;
        std::size_t consumed;
        std::string trace = {};
    } cases[] = {
        {"5555020057050000", 8, batteryCall(device, 87, 500)},
        {"55550211FFFF2233", 8, batteryCall(device, 255, 6300)},
        {"5555201101080204032233010203FFFFFF8000000000000000050000060000070000FF44", 36, "post 0 1 2 3 4 " + post},
        {"5555201101090204032233010203FFFFFF8000000000000000050000060000070000FF44", 36, "post 0 1 2 3 0 " + post},
        // Check bytes by hand: 01+0A+0B+0C+0D = 2F, complement D0; F0+20+FF = 20F, complement of 0F is F0; 5 * FF =
        // 4FB, complement of FB is 04; 13 * FF = CF3, complement of F3 is 0C.
        {"AADD010A0B0C0DD0AAEEF020FF00000000000000000000F0", 24,
         response("AADD010A0B0C0DD0") + response("AAEEF020FF00000000000000000000F0")},
        {"AAEEFFFFFFFFFF04", 8, response("AAEEFFFFFFFFFF04")},
        {"AADDFFFFFFFFFFFFFFFFFFFFFFFFFF0C", 16, response("AADDFFFFFFFFFFFFFFFFFFFFFFFFFF0C")},
        {"AADD0102030405060708090A0B0C0D0E5555021101022233", 24,
         "-1 Response checksum error.\n" + error + "lost sync for command2. length: 24 \n" + battery},
        {"AACC5555021101022233", 10, error + "lost sync for command. length: 10 \n" + battery},
        {"AA55555555021101022233", 11, error + "lost sync for command. length: 11 \n" + battery},
        {"5555035555021101022233", 11, battery},
        {"0102555403555502110102223309", 13, battery},
        {"5555E283010203040506", 0, error + "not enough data. 10 \n"},
        {"5555201101090204", 0},
        {"AADD0102030405060708", 0},
        {"0707070707070707070707", 4},
        {"07070707070707", 0},
        {"", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        ReceiveSession session;
        EXPECT_EQ(session.decode(direct, fromHex(c.bytes)), c.consumed);
        EXPECT_EQ(session.take(), c.trace);
    }
}

TEST_P(FrameDecoder, GateAndMissingCallbacksSilenceDataButLossesAreStillCounted) {
    const Bytes response = responseFrame(0xDD, 1, {1, 2, 3, 4});
    Bytes stream = joined({batteryFrame(1, 2), postFrame({1, 2, 3, 4, 5, {}}), response});
    for (const int counter : {1, 3}) {
        append(stream, Packet{.channel = 3, .counter = counter}.bytes());
        append(stream, Packet{.channels = 2, .counter = counter}.bytes());
    }
    const std::string losses = lossOfChannel(3, 1, 3, 2) + lossOfSeveralChannels(2);
    ReceiveSession gated;
    gated.flags.recording = false;
    EXPECT_EQ(gated.decode(direct, stream), stream.size());
    EXPECT_EQ(gated.take(), responseCall(device, response) + losses);
    ReceiveSession bare;
    bare.callbacks.rawData = nullptr;
    bare.callbacks.battInfo = nullptr;
    bare.callbacks.postData = nullptr;
    bare.callbacks.response = nullptr;
    EXPECT_EQ(bare.decode(direct, stream), stream.size());
    EXPECT_EQ(bare.take(), losses);
    EXPECT_FALSE(isHeld(bare.callbacks.responseLock));
}

TEST_P(FrameDecoder, ResponsesComeInPlaceOrAsACopy) {
    ReceiveSession session;
    const Bytes two = joined({responseFrame(0xDD, 1, {1, 2, 3, 4}), responseFrame(0xEE, 2, Bytes(12, 9))});
    const ExactBlock block(two);
    session.onResponse = [&](unsigned char* frame, int length) {
        EXPECT_EQ(frame == block.span().data() + length - 8, direct);
        frame[length - 1] = 0x77;  // a host may scribble on it
    };
    EXPECT_EQ(direct ? kxorbeta_if::decodeDirectFrames(session.decoder, block.span())
                     : kxorbeta_if::decodeDeviceFrames(session.decoder, 5, block.span()),
              two.size());
    EXPECT_EQ(block.span()[7] == 0x77 && block.span()[23] == 0x77, direct);
    EXPECT_FALSE(isHeld(session.callbacks.responseLock));
}

}  // namespace
}  // namespace test
