#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "scenario.h"

// A dongle that is unplugged. Only the end of a pseudo-terminal can go away like that.

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;

class HangUp : public test::Scenario {
  protected:
    static std::chrono::microseconds processorTime() {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    }
};

TEST_F(HangUp, DuringAConnectionEndsTheAttempt) {
    settings.replies.connectDuration = 60s;
    context_.timing.connectionReadsPerSecond = 1;
    context_.timing.connectionReadTimeoutMs = 5;
    start();
    std::thread unplug([&] {
        EXPECT_TRUE(test::eventually([&] { return requestCount("AT+GRPCONN") == 1; }));
        dongle_->hangUp();
    });
    EXPECT_FALSE(connectGroup(context_, {{"A1B2C3D4E501", 1, 0}}, 0));
    unplug.join();
    EXPECT_FALSE(context_.flags.connecting);
    EXPECT_TRUE(linkEnded());
}

TEST_F(HangUp, InMidStreamBurnsNoCoreAndANewDongleWorksInTheSameProcess) {
    settings.headsets[0].sampleRate = 4000;
    start();
    connect();
    context_.flags.recording = true;
    ASSERT_TRUE(test::eventually([&] { return received.rawCount() > 20; }));
    dongle_->hangUp();
    dongle_.reset();
    std::this_thread::sleep_for(50ms);
    const auto before = processorTime();
    std::this_thread::sleep_for(500ms);
    EXPECT_LT(processorTime() - before, 250ms);
    EXPECT_FALSE(linkEnded()) << "it waits for the host to clean up";
    disconnectAll(context_);
    EXPECT_TRUE(linkEnded());
    context_.port.close();

    start();
    connect();
    received.forgetData();
    context_.flags.recording = true;
    EXPECT_TRUE(test::eventually([&] { return received.rawCount() > 20; }));
}

}  // namespace
}  // namespace kxorbeta_if
