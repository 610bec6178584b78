#include <pthread.h>

#include <array>
#include <vector>

#include "serial_port_test_support.h"

// Forced unwinding through a call. Not for the sanitizers, which lose track of a thread that is cancelled.

namespace kxorbeta_if {
namespace {

TEST(CancelledThread, LeavesThePortGoodForClosingWhateverCallItWasIn) {
    const test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openPort(port, line.hostPort), Port::kOpened);
    const std::string much(1 << 20, 'x');  // nobody reads, so the line is full soon
    std::atomic<int> returned{0};
    const auto write = [&] { port.write(much.data(), much.size()), ++returned; };
    std::vector<std::thread> threads;
    threads.emplace_back(write);
    threads.emplace_back(write);  // waits for the turn of the one before
    threads.emplace_back([&] { read(port, 1), ++returned; });
    threads.emplace_back([&] { readAvailable(port, 1), ++returned; });
    std::this_thread::sleep_for(50ms);
    for (std::thread& thread : threads) {
        pthread_cancel(thread.native_handle());
        thread.join();
    }
    EXPECT_EQ(returned, 0);
    std::array<std::uint8_t, 4096> bytes{};
    while (line.dongleEnd->read(bytes, 10ms) > 0) {
    }
    EXPECT_EQ(port.write("x", 1, steady_clock::now() + 20s), Port::kWritten) << "the turn is free";
    port.close();
    EXPECT_EQ(openPort(port, line.hostPort), Port::kOpened);
}

}  // namespace
}  // namespace kxorbeta_if
