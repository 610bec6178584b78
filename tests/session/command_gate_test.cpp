#include "session/command_gate.h"

#include "support/testing.h"

namespace {

using namespace std::chrono_literals;
using Entry = velmora::CommandGate::Entry;
constexpr auto kNever = velmora::Clock::kNever;

TEST(CommandGate, TheGapBeginsWhenACommandHasBeenWritten) {
    velmora::CommandGate gate(kxorbeta_if::systemClock(), 25ms);
    ASSERT_EQ(gate.enter(kNever, nullptr), Entry::kEntered);
    std::this_thread::sleep_for(10ms);
    const auto written = std::chrono::steady_clock::now();
    gate.leave();
    ASSERT_EQ(gate.enter(kNever, nullptr), Entry::kEntered);
    EXPECT_GE(std::chrono::steady_clock::now() - written, 25ms);
}

TEST(CommandGate, TheWaitForATurnCanBeEnded) {
    velmora::CommandGate gate(kxorbeta_if::systemClock(), 1h);
    ASSERT_EQ(gate.enter(kNever, nullptr), Entry::kEntered);
    velmora::Signal cancel;
    std::thread first([&] { EXPECT_EQ(gate.enter(kNever, &cancel), Entry::kCancelled); });
    std::thread second([&] { EXPECT_EQ(gate.enter(kNever, nullptr), Entry::kClosed); });
    EXPECT_EQ(gate.enter(velmora::Clock::Time::min(), nullptr), Entry::kTimeout);
    cancel.set();
    first.join();
    gate.leave();  // the turn is free, but its gap is not over
    gate.close();
    second.join();
}

}  // namespace
