#include <gtest/gtest.h>

#include <map>
#include <random>

#include "support/link_model.h"
#include "support/receive_session.h"

namespace test {
namespace {

struct Dice {
    std::size_t pick(std::size_t count) { return engine() % count; }
    bool oneIn(std::size_t count) { return pick(count) == 0; }
    std::mt19937 engine;
};

/// Random envelopes of whole frames of 16 headsets. It begins with a packet of channel 0 of every headset, so that no
/// other is held back.
struct Stream {
    Stream(Dice& dice, bool merged) {
        std::map<std::pair<int, int>, int> counters;  // sent last, by headset and channel
        for (int left = 40; left > 0; --left) {
            const int device = left > 24 ? 40 - left : static_cast<int>(dice.pick(16));
            Bytes payload;
            for (std::size_t frames = left > 24 ? 1 : dice.pick(4); frames > 0; --frames) {
                const std::size_t kind = left > 24 ? 0 : dice.pick(10), channel = left > 24 ? 0 : 1 + dice.pick(15);
                const auto byte = static_cast<std::uint8_t>(dice.pick(16));
                if (kind < 7) {  // mostly one after the other, sometimes any
                    const int step = static_cast<int>(dice.oneIn(6) ? dice.pick(256) : 1 + dice.pick(6) / 4);
                    const auto [last, first] = counters.try_emplace({device, kind < 5 ? channel : 0}, dice.pick(256));
                    const int expected = (last->second + 1) % 256, counter = (last->second + step) % 256;
                    const int loss = counter - expected + (expected > counter ? 255 : 0);
                    const Packet packet{device, static_cast<int>(channel), kind >= 5, counter, byte};
                    const bool silent = first || counter == expected;
                    trace += packet.lines(false, merged, expected, silent ? -1 : loss);
                    calls += packet.lines(false, merged, expected, -1);
                    last->second = counter;
                    append(payload, packet.bytes());
                    continue;
                }
                const Post post{byte, byte, 1, byte, 2, {1, 2, 3, 4, 5, byte * 65793u, 7, 8}};
                const Bytes response = responseFrame(0xEE, byte, Bytes(dice.oneIn(2) ? 4 : 12, byte / 2));
                const std::string call = kind == 7   ? batteryCall(device, byte, byte * 100u)
                                         : kind == 8 ? postCall(post)
                                                     : responseCall(device, response);
                append(payload, kind == 7 ? batteryFrame(byte, byte) : kind == 8 ? postFrame(post) : response);
                trace += call;
                calls += call;
            }
            const std::size_t begin = bytes.size();
            append(bytes, envelope(device, payload));
            // A read may end in the middle of an envelope if the next one ends with it.
            const std::size_t whole = bytes.size() - begin, header = whole - payload.size();
            const std::size_t inside = dice.oneIn(2) ? dice.pick(10) : header + dice.pick(payload.size() + 1);
            if (left == 1 || dice.oneIn(3)) {
                if (inside > 0 && inside < 512) {
                    cuts.push_back(begin + inside);
                }
                cuts.push_back(bytes.size());
            }
        }
    }
    Bytes bytes;
    std::vector<std::size_t> cuts;
    std::string trace, calls;  // all that comes of it on fresh tables, and without losses and what makes up for them
};

std::string without(std::string_view unwanted, const std::string& text) {
    std::string rest;
    for (std::size_t at = 0, end = 0; at < text.size(); at = end) {
        end = text.find('\n', at) + 1;
        const std::string line = text.substr(at, end - at);
        rest += line.find(unwanted) == std::string::npos ? line : "";
    }
    return rest;
}

void damage(Dice& dice, Bytes& bytes) {
    static constexpr std::string_view special("#:AT+D0159-\0\x55\xAA\xE2\x02\x20\xDD", 17);
    for (std::size_t left = 1 + dice.pick(30); left > 0 && bytes.size() > 64; --left) {
        const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(dice.pick(bytes.size() - 32));
        const auto length = static_cast<std::ptrdiff_t>(1 + dice.pick(dice.oneIn(4) ? 32 : 3));
        const std::size_t how = dice.pick(5);
        if (how < 2) {
            *at = static_cast<std::uint8_t>(how == 0 ? dice.pick(256)
                                                     : static_cast<unsigned char>(special[dice.pick(special.size())]));
        } else if (how == 2) {
            bytes.erase(at, at + length);
        } else {
            const Bytes more = how == 3 ? Bytes(at, at + length) : bytesOf("AT+DAT1");
            bytes.insert(at, more.begin(), more.end());
        }
    }
}

TEST(GeneratedStreams, AreReadWholeInAnyCutsAndFoundAgainAfterDamage) {
    for (unsigned seed = 0; seed < 2000; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Dice dice{std::mt19937(seed)};
        ReceiveSession session(-1);
        ReceiveSession twin(-1);  // equal blocks on equal tables must have equal results, damaged or not
        session.flags.mergedChannels = dice.oneIn(2);
        twin.flags.mergedChannels = session.flags.mergedChannels.load();
        LinkModel link(session.framer, session.history);
        LinkModel twinLink(twin.framer, twin.history);
        const auto feed = [&](const Bytes& bytes, const std::vector<std::size_t>& cuts) {
            const auto play = [&](LinkModel& model, ReceiveSession& own, ReceiveSession& other) {
                for (std::size_t from = 0; const std::size_t to : cuts) {
                    model.feed(std::span(bytes).subspan(from, to - from));
                    from = to;
                }
                other.take();  // it has seen the log of its twin
                return own.take();
            };
            const std::string trace = play(link, session, twin);
            EXPECT_TRUE(play(twinLink, twin, session) == trace);
            return without("not enough", trace);
        };
        const Stream first(dice, session.flags.mergedChannels);
        ASSERT_TRUE(feed(first.bytes, first.cuts) == first.trace) << "cuts: " << testing::PrintToString(first.cuts);

        Bytes damaged = Stream(dice, session.flags.mergedChannels).bytes;
        damage(dice, damaged);
        std::vector<std::size_t> cuts;
        for (std::size_t at = 0; at < damaged.size();
             cuts.push_back(at = std::min(at + 1 + dice.pick(3000), damaged.size()))) {
        }
        feed(damaged, cuts);
        // The next block may begin with a history that claims all of it. It then passes nothing on, and without one it
        // is whole frames to its end: either way the one after it begins without history. A queue may hold up to 229
        // bytes that look like the beginning of a packet. No frame begins in zeros, and 230 complete what came before.
        Bytes flush;
        for (int device = 0; device < 16; ++device) {
            append(flush, envelope(device, Bytes(230)));
        }
        feed(first.bytes, {first.bytes.size()});
        feed(flush, {flush.size()});
        const Stream last(dice, session.flags.mergedChannels);
        ASSERT_TRUE(without("Lost data", without(" zeros", feed(last.bytes, {last.bytes.size()}))) == last.calls);
        ASSERT_EQ(session.history.length(), 0);
    }
}

}  // namespace
}  // namespace test
