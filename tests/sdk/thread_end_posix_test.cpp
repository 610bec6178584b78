#include "dongle/dongle_runner.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/sdk_context.h"
#include "support/eventually.h"
#include "support/test_line.h"
#include "support/testing.h"
#include "support/working_folder.h"

extern "C" {
void end_thread_on_raw(int device, int channel, int* samples, int count);
void end_thread_on_event(unsigned int code, unsigned int value);
extern unsigned int ending_event;
}

// Threads of the library that end inside a host's callback, as pthread_exit and interpreters that shut down end them.

namespace {

using namespace std::chrono_literals;

class ThreadEnd : public testing::Test {
  protected:
    ThreadEnd() : line_(test::plugLine()) {
        lastEvent = 0;
        dongle::Settings settings = dongle::defaultSettings(1);
        settings.headsets[0].sampleRate = 2000;
        settings.replies.connectDuration = settings.replies.streamDelay = 10ms;
        dongle_ = std::make_unique<dongle::Runner>(settings, std::move(line_.dongleEnd));
        SDK_Init();
        EXPECT_EQ(SDK_ConnectPort(line_.hostPort.c_str()), 1);
    }
    ~ThreadEnd() override {
        SDK_SetRawDataCallback(nullptr);
        SDK_SetEventCallback(nullptr);
        SDK_Cleanup();
        SDK_DisconnectDevice("A1B2C3D4E501");
        SDK_DisconnectDevice("A1B2C3D4E501");
    }

    static int connect() { return SDK_ConnectDevice("A1B2C3D4E501", 1); }
    static kxorbeta_if::Context& core() { return kxorbeta_if::processContext().core; }
    /// The link thread has gone without a word, and the library works on.
    void expectGoneAndUsable() {
        ASSERT_TRUE(test::eventually([] { return !core().linkThreads.living(); }));
        EXPECT_FALSE(core().flags.linkStarted);
        EXPECT_EQ(folder_.count("kxsdk.log", "Main thread stop"), 0);
        SDK_SetEventCallback([](unsigned code, unsigned) { lastEvent = code; });
        static std::atomic<long> packets;
        packets = 0;
        SDK_SetRawDataCallback([](int, int, int*, int) { ++packets; });
        SDK_Cleanup();
        EXPECT_EQ(lastEvent, 0u) << "nobody is left to raise an event";
        SDK_Init();
        ASSERT_EQ(SDK_ConnectPort(line_.hostPort.c_str()), 1);
        ASSERT_EQ(connect(), 1);
        ASSERT_EQ(SDK_StartDataCollection(), 1);
        EXPECT_TRUE(test::eventually([] { return packets > 20; }));
    }

    static inline std::atomic<unsigned> lastEvent{0};
    test::WorkingFolder folder_;
    test::TestLine line_;
    std::unique_ptr<dongle::Runner> dongle_;
};

TEST_F(ThreadEnd, InTheRawDataCallback) {
    SDK_SetRawDataCallback(end_thread_on_raw);
    ASSERT_EQ(connect(), 1);
    ASSERT_EQ(SDK_StartDataCollection(), 1);
    expectGoneAndUsable();
}

TEST_F(ThreadEnd, InTheEventCallbackOfTheLinkThread) {
    ending_event = 4;
    SDK_SetEventCallback(end_thread_on_event);
    ASSERT_EQ(connect(), 1) << "the start of the link thread is not confirmed";
    expectGoneAndUsable();
}

TEST_F(ThreadEnd, InTheEventCallbackOfTheConnectionThread) {
    ending_event = 2;
    SDK_SetEventCallback(end_thread_on_event);
    EXPECT_EQ(connect(), 0);
    EXPECT_FALSE(core().flags.connecting);
    SDK_SetEventCallback(nullptr);
    // The end of the first attempt may end the second.
    EXPECT_TRUE(test::eventually([] { return connect() == 1; }));
}

}  // namespace
