#include <gtest/gtest.h>

#include "support/receive_session.h"

namespace test {
namespace {

/// Runs for both decoders. The device decoder is looked at for headset 5.
class FrameDecoder : public testing::TestWithParam<bool> {
  protected:
    const bool direct = GetParam();
    const int device = direct ? 0 : 5;
};
INSTANTIATE_TEST_SUITE_P(Both, FrameDecoder, testing::Bool(),
                         [](const auto& tested) { return tested.param ? "Direct" : "Device"; });

TEST_P(FrameDecoder, SamplesAreBigEndianSignedAndInOrder) {
    ReceiveSession session;
    Bytes frame = fromHex("5555E28300017FFF8000FFFE1234");
    frame.resize(230);
    frame[4 + 2 * 111] = 0xFF;
    std::vector<int> expected{1, 32767, -32768, -2, 0x1234};
    expected.resize(kSlots);
    expected[111] = -256;
    EXPECT_EQ(session.decode(direct, frame), 230u);
    EXPECT_EQ(session.take(), rawCall(device, 3, expected));
}

TEST_P(FrameDecoder, ChannelByteSaysWhoseSamplesTheyAre) {
    for (unsigned byte = 0; byte < 256; ++byte) {
        SCOPED_TRACE(byte);
        ReceiveSession session;
        // A frame that is not one costs a byte; none of the others looks like a start, and the last seven are too few.
        const bool sound = byte >= 0x80 || (byte >= 0x40 && byte % 16 != 0);
        std::string expected;
        if (byte >= 0x80) {
            expected = rawCall(device, static_cast<int>(byte % 16), samples(1));
        } else if (byte < 0x40) {
            const std::string hex = (byte < 16 ? "" : std::to_string(byte / 16)) + "0123456789abcdef"[byte % 16];
            expected = "-1 Parse data error, channel invalid " + hex + ".\n";
        } else if (!sound) {
            expected = "-1 Parse data error, channel is 0.\n";
        }
        const Bytes frame = rawFrame(static_cast<std::uint8_t>(byte), samples(1), 9);
        EXPECT_EQ(session.decode(direct, frame), sound ? 230u : 223u);
        EXPECT_EQ(session.take(), expected) << "the first packet of several channels is held back";
    }
}

TEST_P(FrameDecoder, LossesAndTheirSubstitutes) {
    // The counter expected, the one received, and the loss that is logged (-1: none). Across the wrap it reads one less
    // than it is.
    const int cases[][3] = {{11, 11, -1},  {11, 12, 1},  {11, 13, 2},    {11, 14, 3}, {1, 200, 199},
                            {11, 10, 254}, {11, 5, 249}, {255, 255, -1}, {0, 0, -1},  {0, 1, 1},
                            {255, 0, 0},   {255, 1, 1},  {255, 2, 2},    {255, 3, 3}, {254, 0, 1}};
    for (const bool merged : {false, true}) {
        for (const int channels : {0, 1, 2, 3, 5, 8, 15}) {  // 0: one packet of channel 3
            for (const auto& [expected, received, loss] : cases) {
                SCOPED_TRACE(testing::Message() << channels << " merged " << merged << ": " << expected << received);
                ReceiveSession session;
                session.flags.mergedChannels = merged;
                const bool multi = channels > 0;
                const int channel = multi ? channels : 3;
                // A packet of several channels is held back when it is the first, and then still expected.
                const Packet first{device, channel, multi, multi ? expected : (expected + 255) % 256, 0};
                session.decode(direct, first.bytes());
                EXPECT_EQ(session.take(), multi ? "" : first.lines(direct, merged, 0, -1));
                const Packet second{device, channel, multi, received, 1};
                session.decode(direct, second.bytes());
                EXPECT_EQ(session.take(), second.lines(direct, merged, expected, loss));
                const Packet third{device, channel, multi, (received + 1) % 256, 2};
                session.decode(direct, third.bytes());
                EXPECT_EQ(session.take(), third.lines(direct, merged, 0, -1)) << "its successor is expected next";
            }
        }
    }
}

TEST_P(FrameDecoder, SmallFrames) {
    // Frames, the number of bytes consumed, and lines. Check bytes by hand: 01+0A+0B+0C+0D = 2F, complement D0;
    // F0+20+FF = 20F, complement of 0F is F0; 5 * FF = 4FB, complement of FB is 04; 13 * FF = CF3, complement of F3 is
    // 0C.
    const auto table = rows(R"(5555020057050000 => 8 => battery D 87 500$ | 55550211FFFF2233 => 8 => battery D 255 6300$
        5555201101080204032233010203FFFFFF8000000000000000050000060000070000FF44 => 36 => post 0 1 2 3 4 66051 16777215 8388608 0 5 6 7 255$
        5555201101090204032233010203FFFFFF8000000000000000050000060000070000FF44 => 36 => post 0 1 2 3 0 66051 16777215 8388608 0 5 6 7 255$
        AADD010A0B0C0DD0AAEEF020FF00000000000000000000F0 => 24 => response D 1 AADD010A0B0C0DD0$response D 240 AAEEF020FF00000000000000000000F0$
        AAEEFFFFFFFFFF04 => 8 => response D 255 AAEEFFFFFFFFFF04$ | AADDFFFFFFFFFFFFFFFFFFFFFFFFFF0C => 16 => response D 255 AADDFFFFFFFFFFFFFFFFFFFFFFFFFF0C$
        AADD0102030405060708090A0B0C0D0E5555021101022233 => 24 => -1 Response checksum error.$-1 Parse data error, lost sync for command2. length: 24 $battery D 1 200$
        AACC5555021101022233 => 10 => -1 Parse data error, lost sync for command. length: 10 $battery D 1 200$
        AA55555555021101022233 => 11 => -1 Parse data error, lost sync for command. length: 11 $battery D 1 200$
        5555035555021101022233 => 11 => battery D 1 200$ | 0102555403555502110102223309 => 13 => battery D 1 200$
        5555E283010203040506 => 0 => -1 Parse data error, not enough data. 10 $ | 5555201101090204 => 0 => - | AADD0102030405060708 => 0 => -
        0707070707070707070707 => 4 => - | 07070707070707 => 0 => - | - => 0 => -)");
    for (const auto& row : table) {
        SCOPED_TRACE(row[0]);
        std::string lines = row[2];
        for (std::size_t at = 0; (at = lines.find(" D ", at)) != std::string::npos;) {
            lines.replace(at + 1, 1, std::to_string(device));
        }
        ReceiveSession session;
        EXPECT_EQ(session.decode(direct, fromHex(row[0])), std::stoul(row[1]));
        EXPECT_EQ(session.take(), lines);
    }
}

TEST_P(FrameDecoder, GateAndMissingCallbacksSilenceDataButLossesAreStillCounted) {
    const Bytes response = responseFrame(0xDD, 1, {1, 2, 3, 4});
    Bytes stream = joined({batteryFrame(1, 2), postFrame({1, 2, 3, 4, 5, {}}), response});
    std::string losses;
    for (const Packet& packet : {Packet{device, 3, false, 1, 7}, Packet{device, 3, false, 3, 7},
                                 Packet{device, 2, true, 1, 7}, Packet{device, 2, true, 3, 7}}) {
        append(stream, packet.bytes());
        const std::string lines = packet.lines(direct, false, packet.multi ? 1 : 2, packet.multi ? 2 : 1);
        losses += packet.counter == 3 ? lines.substr(0, lines.find('\n') + 1) : "";
    }
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
