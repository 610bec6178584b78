#include "support/receive_session.h"

#include "support/testing.h"

namespace test {
namespace {

/// Of headset 1, channel 2.
Packet packet(int counter, unsigned seed = 1) {
    return {.device = 1, .channel = 2, .counter = counter, .seed = seed};
}

const Bytes kPacket = packet(10).bytes();

/// A host starts data collection inside a data callback, while the frame it is called for lies in the queue that is to
/// be emptied.
TEST(Reset, InsideADataCallback) {
    const std::string call = rawCall(1, 2, samples(1));
    ReceiveSession session(-1);
    int calls = 0;
    session.onRaw = [&] {
        if (++calls == 1) {
            session.tables.reset();
        }
    };
    session.parse(joined({envelope(1, part(kPacket, 0, 100)), envelope(3, part(kPacket, 0, 50))}));
    // Completed from the queue, with a second packet and half a third behind it. The second shows that the counters are
    // forgotten: its jump from 10 to 99 is no loss.
    const Bytes later = packet(99).bytes();
    EXPECT_EQ(session.parse(envelope(1, joined({part(kPacket, 100), later, part(later, 0, 40)}))),
              call + call + "-1 Parse data error, not enough data. 40 \n");
    // The half packets of all headsets are gone before the next frame: what completes them finds nothing to complete.
    EXPECT_EQ(session.parse(joined({envelope(3, part(kPacket, 50)), envelope(1, part(later, 40))})), "");
    const Bytes next = packet(100, 2).bytes();
    EXPECT_EQ(session.parse(joined({envelope(1, next), envelope(3, next)})),
              rawCall(1, 2, samples(2)) + rawCall(3, 2, samples(2)));
}

TEST(Reset, WithoutALinkThreadItIsDoneAtOnce) {
    ReceiveSession session(-2);
    session.parse(envelope(1, part(kPacket, 0, 100)));
    session.tables.deviceStreams.release();
    session.tables.reset();
    EXPECT_TRUE(session.tables.deviceStreams[1].empty());
    // A thread that begins to decode begins with empty queues, also when an old wish was never carried out.
    session.tables.deviceStreams.claim();
    session.tables.reset();
    session.tables.deviceStreams.release();
    session.tables.deviceStreams.claim();
    session.parse(envelope(1, part(kPacket, 0, 100)));
    EXPECT_EQ(session.parse(envelope(1, part(kPacket, 100))), rawCall(1, 2, samples(1)));
}

/// Another thread starts data collection over and over while frames in pieces are decoded. What reaches the host is
/// either what the headset sent or a substitute, never a mixture.
TEST(Reset, FromAnotherThreadWhileDecoding) {
    ReceiveSession session(-2);
    session.tables.deviceStreams.release();
    std::atomic<bool> stop{false};
    std::atomic<long> rounds{0};
    long packets = 0, wrong = 0;
    std::thread decoding([&] {
        session.tables.deviceStreams.claim();
        const std::string good = rawCall(1, 2, samples(1)), zeros = rawCall(1, 2, std::vector<int>(kSlots));
        for (int counter = 0; !stop; counter = (counter + 1) % 256, ++rounds) {
            const Bytes bytes = packet(counter).bytes();
            for (const auto& [from, to] : {std::pair{0u, 90u}, {90u, 180u}, {180u, 230u}}) {
                std::string calls = session.parse(envelope(1, part(bytes, from, to)));
                for (; calls.starts_with(zeros); calls.erase(0, zeros.size())) {
                }
                packets += calls == good;
                wrong += !calls.empty() && calls != good;
            }
        }
        session.tables.deviceStreams.release();
    });
    for (int i = 0; i < 20000; ++i) {
        session.tables.reset();
        for (const long before = rounds; i % 250 == 0 && rounds < before + 2;) {  // let some packets through whole
            std::this_thread::yield();
        }
    }
    stop = true;
    decoding.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(packets, 0);
}

}  // namespace
}  // namespace test
