#include "link/serial_port.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "support/eventually.h"
#include "support/test_line.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

SerialPort::Result openAt(SerialPort& port, const test::TestLine& line, std::uint32_t baud = 2000000) {
    return port.open(test::portPath(line).c_str(), baud, 3, 0, 0);
}

void send(test::TestLine& line, std::string_view text) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    ASSERT_EQ(line.dongleEnd->write({bytes, text.size()}), text.size());
}

std::string receive(test::TestLine& line, std::size_t count) {
    std::string text;
    std::array<std::uint8_t, 4096> bytes{};
    test::eventually([&] {
        const std::size_t got = line.dongleEnd->read(bytes, 10ms);
        text.append(reinterpret_cast<const char*>(bytes.data()), got);
        return text.size() >= count;
    });
    return text;
}

TEST(SerialPortOpen, ChecksInOrderAndStaysOpenWhenOnlySettingsFail) {
    struct Case {
        std::uint32_t baud;
        int dataBits, parity, stopBits;
        SerialPort::Result result;
    };
    const Case cases[] = {
        {250000, 9, 9, 9, SerialPort::kBadBaud},       {0, 3, 0, 0, SerialPort::kBadBaud},
        {2000001, 3, 0, 0, SerialPort::kBadBaud},      {2000000, 5, 9, 9, SerialPort::kBadDataBits},
        {2000000, -1, 0, 0, SerialPort::kBadDataBits}, {2000000, 3, 9, 3, SerialPort::kBadStopBits},
        {2000000, 3, 0, -1, SerialPort::kBadStopBits}, {2000000, 3, 5, 0, SerialPort::kBadParity},
        {2000000, 3, -1, 0, SerialPort::kBadParity},   {2000000, 4, 0, 0, SerialPort::kApplyFailed},
        {2000000, 3, 0, 0, SerialPort::kOpened},       {110, 3, 0, 0, SerialPort::kOpened},
        {128000, 3, 0, 0, SerialPort::kOpened},        {921600, 3, 1, 2, SerialPort::kOpened},
    };
    const test::TestLine line = test::plugLine();
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.baud << " " << c.dataBits << c.parity << c.stopBits);
        SerialPort port;
        EXPECT_EQ(port.open(test::portPath(line).c_str(), c.baud, c.dataBits, c.parity, c.stopBits), c.result);
        EXPECT_TRUE(port.isOpen());
        port.close();
        EXPECT_FALSE(port.isOpen());
    }
}

TEST(SerialPortOpen, APortThatDoesNotExistLeavesItClosed) {
    SerialPort port;
    EXPECT_EQ(port.open(R"(\\.\COM4099)", 2000000, 3, 0, 0), SerialPort::kNoSuchPort);
    EXPECT_EQ(port.open(R"(\\.\COM4099)", 1, 9, 9, 9), SerialPort::kNoSuchPort) << "the port comes before its settings";
    EXPECT_FALSE(port.isOpen());
    port.close();
    EXPECT_FALSE(port.isOpen());
}

TEST(SerialPortRead, ReturnsOnTimeoutGapOrWhenFull) {
    test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openAt(port, line), SerialPort::kOpened);
    std::array<char, 64> buffer{};

    const auto start = Clock::now();
    EXPECT_EQ(port.read(buffer.data(), 64, 60), 0);
    EXPECT_GE(Clock::now() - start, 55ms) << "a quiet line takes the whole time-out";

    // With a time-out that the test would not live to see, only the gap after the last byte ends the read.
    send(line, "first");
    EXPECT_EQ(port.read(buffer.data(), 64, 600000), 5);
    EXPECT_EQ(std::string(buffer.data(), 5), "first");

    send(line, "0123456789");
    EXPECT_EQ(port.read(buffer.data(), 4, 600000), 4) << "a full buffer ends the read";
    EXPECT_EQ(port.read(buffer.data(), 64, 600000), 6);
    EXPECT_EQ(std::string(buffer.data(), 6), "456789");
}

TEST(SerialPortRead, TheTimeoutCountsInAllHoweverBytesDribbleIn) {
    test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openAt(port, line), SerialPort::kOpened);
    std::atomic<bool> done{false};
    std::thread dribble([&] {
        while (!done) {
            send(line, "x");
            std::this_thread::sleep_for(2ms);
        }
    });
    std::array<char, 100000> buffer{};
    const int count = port.read(buffer.data(), buffer.size(), 100);
    done = true;
    dribble.join();
    EXPECT_GT(count, 0);
    EXPECT_LT(count, static_cast<int>(buffer.size()));
}

TEST(SerialPortWrite, BytesArriveAsTheyAre) {
    test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openAt(port, line), SerialPort::kOpened);
    std::string all;  // raw mode: no byte is a line end, a signal or flow control
    for (int i = 0; i < 256; ++i) {
        all.push_back(static_cast<char>(i));
    }
    EXPECT_EQ(port.write(all.data(), all.size()), 1);
    EXPECT_EQ(receive(line, all.size()), all);
    send(line, all);
    std::array<char, 512> buffer{};
    std::string back;
    while (back.size() < all.size()) {
        const int count = port.read(buffer.data(), buffer.size(), 5000);
        ASSERT_GT(count, 0);
        back.append(buffer.data(), static_cast<std::size_t>(count));
    }
    EXPECT_EQ(back, all);
}

TEST(SerialPortClosed, ReadsFailSlowlyAndWritesFail) {
    SerialPort port;
    char byte = 0;
    const auto start = Clock::now();
    EXPECT_EQ(port.read(&byte, 1, 60), -1);
    EXPECT_GE(Clock::now() - start, 55ms) << "a caller that tries for ever must not burn a core";
    EXPECT_EQ(port.write(&byte, 1), -1);
}

TEST(SerialPortClose, WaitsForTheReaderAndGivesThePortBackAtOnce) {
    const test::TestLine line = test::plugLine();
    SerialPort port;
    std::atomic<bool> stop{false};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        std::array<char, 256> buffer{};
        while (!stop) {
            port.read(buffer.data(), buffer.size(), 20);
            ++reads;
        }
    });
    std::thread writer([&] {
        while (!stop) {
            port.write("AT+PING", 7);
            std::this_thread::sleep_for(1ms);
        }
    });
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(openAt(port, line), SerialPort::kOpened) << "our own lock was in the way";
        const int before = reads;
        test::eventually([&] { return reads > before; });
        port.close();
        ASSERT_FALSE(port.isOpen());
    }
    stop = true;
    reader.join();
    writer.join();
}

}  // namespace
}  // namespace kxorbeta_if
