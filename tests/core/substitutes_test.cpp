#include <gtest/gtest.h>

#include <algorithm>

#include "support/receive_session.h"

namespace test {
namespace {

/// A callback that ends collection, or takes itself out, in the middle of what makes up for a loss of two packets.
TEST(Substitutes, AreAllDeliveredOnceBegun) {
    for (const bool direct : {false, true}) {
        for (const int channels : {0, 5}) {  // 0: one packet of channel 3
            for (const bool takesItselfOut : {false, true}) {
                SCOPED_TRACE(testing::Message() << "direct " << direct << ", channels " << channels);
                ReceiveSession session(-2);
                session.flags.mergedChannels = direct;  // one call for each lost packet of several channels
                const auto packet = [&](int counter) {
                    return rawFrame(channels > 0 ? multiChannel(channels) : singleChannel(3), samples(1), counter);
                };
                session.decode(direct, packet(10));
                session.take();
                int calls = 0;
                session.onRaw = [&] {
                    ++calls;
                    if (takesItselfOut) {
                        session.callbacks.rawData = nullptr;
                    } else {
                        session.flags.recording = false;
                    }
                };
                session.decode(direct, packet(channels > 0 ? 12 : 13));
                EXPECT_EQ(calls, 2) << session.take();
            }
        }
    }
}

}  // namespace
}  // namespace test
