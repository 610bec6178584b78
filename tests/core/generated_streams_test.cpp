#include <gtest/gtest.h>

#include <map>

#include "support/dice.h"
#include "support/receive_session.h"

namespace test {
namespace {

/// Random envelopes of whole frames of 16 headsets. It begins with a packet of channel 0 of every headset, so that no
/// other is held back. What one read can bring is its limit.
struct Stream {
    Stream(Dice& dice, bool merged) {
        std::map<std::pair<int, int>, int> next;  // counter, by headset and channel
        constexpr std::size_t kLongestEnvelope = 12 + 3 * 230;
        const auto full = [&] { return bytes.size() + kLongestEnvelope > kxorbeta_if::ReceiveBuffer::kReadSize; };
        for (int sent = 0; sent < 40 && !full(); ++sent) {
            const bool opening = sent < 16;
            const int device = opening ? sent : static_cast<int>(dice.pick(16));
            Bytes payload;
            for (std::size_t frames = opening ? 1 : dice.pick(4); frames > 0; --frames) {
                const std::size_t kind = opening ? 0 : dice.pick(10);
                const auto byte = static_cast<std::uint8_t>(dice.pick(16));
                if (kind < 7) {
                    Packet packet{.device = device, .seed = byte};
                    (kind < 5 ? packet.channel : packet.channels) = opening ? 0 : static_cast<int>(1 + dice.pick(15));
                    const auto [expected, first] = next.try_emplace({device, packet.channel}, dice.pick(256));
                    // Mostly one after the other, sometimes any.
                    const std::size_t step = dice.oneIn(6) ? dice.pick(256) : dice.oneIn(6) ? 1 : 0;
                    packet.counter = static_cast<int>(static_cast<std::size_t>(expected->second) + step) % 256;
                    jumps += !first && packet.counter != expected->second;
                    expected->second = (packet.counter + 1) % 256;
                    append(payload, packet.bytes());
                    calls += packet.calls(merged);
                } else if (kind == 7) {
                    append(payload, batteryFrame(byte, byte));
                    calls += batteryCall(device, byte, byte * 100u);
                } else if (kind == 8) {
                    const Post post{byte, byte, 1, byte, 2, {1, 2, 3, 4, 5, byte * 65793u, 7, 8}};
                    append(payload, postFrame(post));
                    calls += postCall(post);
                } else {
                    const Bytes response = responseFrame(0xEE, byte, Bytes(dice.oneIn(2) ? 4 : 12, byte / 2));
                    append(payload, response);
                    calls += responseCall(device, response);
                }
            }
            const std::size_t begin = bytes.size();
            append(bytes, envelope(device, payload));
            // A read may end in the middle of an envelope if the next one ends with it.
            const std::size_t header = bytes.size() - begin - payload.size();
            const std::size_t inside = dice.oneIn(2) ? dice.pick(10) : header + dice.pick(payload.size() + 1);
            if (sent == 39 || full() || dice.oneIn(3)) {
                if (inside > 0 && inside < 512) {
                    cuts.push_back(begin + inside);
                }
                cuts.push_back(bytes.size());
            }
        }
    }
    Bytes bytes;
    std::vector<std::size_t> cuts;
    std::string calls;  // what a host must get, beside what makes up for losses
    int jumps = 0;      // of counters: each is a loss
};

/// What a session made of a stream, taken apart.
struct Result {
    explicit Result(const std::string& trace) {
        for (std::size_t at = 0, end = 0; at < trace.size(); at = end) {
            end = trace.find('\n', at) + 1;
            const std::string line = trace.substr(at, end - at);
            if (line.find("not enough data") != std::string::npos) {
                continue;  // depends on the cuts
            }
            whole += line;
            if (line.find("Lost data chan") != std::string::npos) {
                ++losses;
                mayBridge = true;
            } else if (line.ends_with(" zeros\n")) {
                strayZeros += !mayBridge;
            } else {
                mayBridge = false;
                calls += line;
            }
        }
    }
    std::string whole;  // all lines
    std::string calls;  // without losses and substitutes
    int losses = 0;
    int strayZeros = 0;  // that do not stand between a loss and the packet behind it

  private:
    bool mayBridge = false;
};

TEST(GeneratedStreams, AreReadWholeInAnyCutsAndFoundAgainAfterDamage) {
    for (unsigned seed = 0; seed < 2000; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Dice dice{std::mt19937(seed)};
        ReceiveSession session(-1);
        ReceiveSession twin(-1);
        const bool merged = dice.oneIn(2);
        session.flags.mergedChannels = twin.flags.mergedChannels = merged;
        const auto feed = [&](ReceiveSession& to, const Bytes& bytes, const std::vector<std::size_t>& cuts) {
            session.take(), twin.take();  // each sees the log of the other
            std::string trace;
            for (std::size_t from = 0; const std::size_t end : cuts) {
                trace += to.read(std::span(bytes).subspan(from, end - from));
                from = end;
            }
            return Result(trace);
        };
        const auto feedBoth = [&](const Bytes& bytes, const std::vector<std::size_t>& cuts) {
            const Result result = feed(session, bytes, cuts);
            EXPECT_TRUE(feed(twin, bytes, cuts).whole == result.whole) << "equal reads have equal results";
            EXPECT_EQ(result.strayZeros, 0);
            return result;
        };

        const Stream first(dice, merged);
        const Result cut = feed(session, first.bytes, first.cuts);
        ASSERT_TRUE(cut.calls == first.calls) << "cuts: " << testing::PrintToString(first.cuts);
        EXPECT_EQ(cut.losses, first.jumps);
        EXPECT_EQ(cut.strayZeros, 0);
        EXPECT_TRUE(feed(twin, first.bytes, {first.bytes.size()}).whole == cut.whole) << "the cuts make no difference";

        Bytes damaged = Stream(dice, merged).bytes;
        damage(dice, damaged, 30);
        std::vector<std::size_t> cuts;
        for (std::size_t at = 0; at < damaged.size();
             cuts.push_back(at = std::min(at + 1 + dice.pick(3000), damaged.size()))) {
        }
        feedBoth(damaged, cuts);
        // The next block may begin with a history that claims all of it. It then passes nothing on, and without one it
        // is whole frames to its end: either way the one after it begins without history. A queue may hold up to 229
        // bytes that look like the beginning of a packet. No frame begins in zeros, and 230 complete what came before.
        Bytes flush;
        for (int device = 0; device < 16; ++device) {
            append(flush, envelope(device, Bytes(230)));
        }
        feedBoth(first.bytes, {first.bytes.size()});
        feedBoth(flush, {flush.size()});
        const Stream last(dice, merged);
        ASSERT_TRUE(feedBoth(last.bytes, {last.bytes.size()}).calls == last.calls);
        ASSERT_EQ(session.buffer.history().length(), 0);
    }
}

}  // namespace
}  // namespace test
