#include <array>
#include <string_view>

#include "serial_port_test_support.h"

namespace kxorbeta_if {
namespace {

/// Each test for both kinds of port, with an open one.
class SerialPortTest : public testing::TestWithParam<NativeOpener> {
  protected:
    void SetUp() override { ASSERT_EQ(openPort(port_, line_.hostPort), Port::kOpened); }

    void send(std::string_view text) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
        ASSERT_EQ(line_.dongleEnd->write({bytes, text.size()}), text.size());
    }

    test::TestLine line_ = test::plugLine();
    SerialPort port_{SerialPort::kDeviceFolder, GetParam()};
    const std::string much_ = std::string(1 << 26, 'x');  // more than a line takes that nobody reads
};

INSTANTIATE_TEST_SUITE_P(Kinds, SerialPortTest, testing::Values(openSynchronous, openOverlapped),
                         [](const auto& kind) { return kind.index == 0 ? "Synchronous" : "Overlapped"; });

TEST_P(SerialPortTest, OpenChecksInOrderAndStaysOpenWhenOnlySettingsFail) {
    const struct {
        std::uint32_t baud;
        int dataBits, parity, stopBits;
        Port::Result result;
    } cases[] = {{250000, 9, 9, 9, Port::kBadBaud},      {0, 3, 0, 0, Port::kBadBaud},
                 {2000000, 5, 9, 9, Port::kBadDataBits}, {2000000, -1, 0, 0, Port::kBadDataBits},
                 {2000000, 3, 9, 3, Port::kBadStopBits}, {2000000, 3, 0, -1, Port::kBadStopBits},
                 {2000000, 3, 5, 0, Port::kBadParity},   {2000000, 3, -1, 0, Port::kBadParity},
                 {2000000, 4, 0, 0, Port::kApplyFailed}, {110, 3, 0, 0, Port::kOpened},
                 {921600, 3, 1, 2, Port::kOpened},       {128000, 3, 0, 0, Port::kOpened}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.baud << " " << c.dataBits << c.parity << c.stopBits);
        EXPECT_EQ(port_.open(test::portPath(line_).c_str(), c.baud, c.dataBits, c.parity, c.stopBits), c.result);
        EXPECT_TRUE(port_.isOpen());
        port_.close();
        EXPECT_FALSE(port_.isOpen());
    }
    EXPECT_EQ(port_.open(R"(\\.\COM4099)", 1, 9, 9, 9), Port::kNoSuchPort) << "the port comes before its settings";
    EXPECT_FALSE(port_.isOpen());
    EXPECT_EQ(read(port_, 1), std::to_string(Port::kTimeoutNotApplied)) << "a closed port fails at once";
    EXPECT_EQ(readAvailable(port_, 1), std::to_string(Port::kReadFailed));
    EXPECT_EQ(port_.write("x", 1), Port::kWriteFailed);
    port_.wake();
}

TEST_P(SerialPortTest, AReadReturnsOnTimeoutGapOrWhenFull) {
    const auto start = steady_clock::now();
    EXPECT_EQ(read(port_, 64, 60), "");
    EXPECT_GE(steady_clock::now() - start, 55ms) << "a quiet line takes the whole time-out";
    send("first");
    EXPECT_EQ(read(port_, 64), "first") << "the gap after the last byte ends the read";
    send("0123456789");
    EXPECT_EQ(read(port_, 4), "0123") << "a full buffer ends the read";
    EXPECT_EQ(read(port_, 64), "456789");

    // However bytes dribble in, the time-out counts in all.
    std::jthread dribble([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            send("x");
            std::this_thread::sleep_for(2ms);
        }
    });
    const std::size_t count = read(port_, 100000, 100).size();
    EXPECT_TRUE(count > 0 && count < 100000) << count;
}

TEST_P(SerialPortTest, BytesPassAsTheyAre) {
    std::string all;  // raw mode: no byte is a line end, a signal or flow control
    for (int i = 0; i < 256; ++i) {
        all.push_back(static_cast<char>(i));
    }
    EXPECT_EQ(port_.write(all.data(), all.size()), Port::kWritten);
    std::string there, back;
    std::array<std::uint8_t, 4096> bytes{};
    EXPECT_TRUE(test::eventually([&] {
        there.append(bytes.begin(), bytes.begin() + static_cast<long>(line_.dongleEnd->read(bytes, 10ms)));
        return there.size() >= all.size();
    }));
    EXPECT_EQ(there, all);
    send(all);
    EXPECT_TRUE(test::eventually([&] { return (back += read(port_, 512, 5000)).size() >= all.size(); }));
    EXPECT_EQ(back, all);
}

TEST_P(SerialPortTest, ReadAvailableTakesWhatIsThereAndWaitsForNoMore) {
    EXPECT_EQ(readAvailable(port_, 8, steady_clock::now()), "") << "a look costs no wait";
    const auto deadline = steady_clock::now() + 60ms;
    EXPECT_EQ(readAvailable(port_, 8, deadline), "");
    EXPECT_GE(steady_clock::now() + 1ms, deadline);
    EXPECT_EQ(readAvailable(port_, 0), "") << "no room, nothing to wait for";

    // Bytes before the wait and in the middle of it, one after the other, each told of at once.
    for (int round = 0; round < 50; ++round) {
        std::jthread sender([&] { send("ab"); });
        if (round % 2 == 0) {
            sender.join();
        }
        std::string got;
        while (got.size() < 2) {
            const std::string more = readAvailable(port_, 8);
            ASSERT_NE(more, "") << round;
            got += more;
        }
        EXPECT_EQ(got, "ab");
    }
    send("0123456789");
    EXPECT_TRUE(test::eventually([&] { return readAvailable(port_, 4).size() == 4; })) << "no more than has room";
}

TEST_P(SerialPortTest, WakeEndsTheReadThatWaitsOrTheNextOne) {
    port_.wake();
    port_.wake();
    EXPECT_EQ(readAvailable(port_, 1), "") << "woken before it began to wait";
    for (int i = 0; i < 20; ++i) {
        const std::jthread waker([&] {
            std::this_thread::sleep_for(i % 3 * 1ms);
            port_.wake();
        });
        EXPECT_EQ(readAvailable(port_, 1), "");
    }
    port_.wake();
    send("x");
    EXPECT_EQ(read(port_, 1), "x") << "a read with a gap is not woken";
    EXPECT_EQ(readAvailable(port_, 1), "");
}

TEST_P(SerialPortTest, AWriteEndsAtItsDeadlineWhetherAnybodyReadsOrNot) {
    for (const bool reading : {false, true}) {
        const std::jthread reader([&](const std::stop_token& stop) {
            std::array<std::uint8_t, 4096> bytes{};
            while (reading && !stop.stop_requested()) {
                line_.dongleEnd->read(bytes, 1ms);
            }
        });
        const auto deadline = steady_clock::now() + 30ms;
        EXPECT_EQ(port_.write(much_.data(), much_.size(), deadline), Port::kWriteFailed);
        EXPECT_GE(steady_clock::now(), deadline);
    }
}

TEST_P(SerialPortTest, CloseEndsEveryCallThatWouldLastForEver) {
    for (int round = 0; round < 5; ++round) {
        std::atomic<int> begun{0};
        const auto begins = [&](auto call) { return std::jthread([&begun, call] { ++begun, call(); }); };
        const auto endsEmpty = [&](const std::string& got) {
            EXPECT_TRUE(got.empty() || (round < 4 && got.starts_with('-'))) << got;  // that one came too late to wait
        };
        {
            const std::jthread calls[] = {
                begins([&] { endsEmpty(read(port_, 1)); }), begins([&] { endsEmpty(readAvailable(port_, 1)); }),
                begins([&] { endsEmpty(readAvailable(port_, 1)); }), begins([&] {
                    // Wine knows no way to end a synchronous write.
                    if (GetParam() == openOverlapped) {
                        EXPECT_EQ(port_.write(much_.data(), much_.size()), Port::kWriteFailed);
                    }
                })};
            EXPECT_TRUE(test::eventually([&] { return begun == 4; }));
            std::this_thread::sleep_for(round * 15ms);  // from hardly begun to well asleep
            port_.close();
        }
        ASSERT_EQ(openPort(port_, line_.hostPort), Port::kOpened);
    }
}

TEST_P(SerialPortTest, CloseWaitsForTheReaderAndGivesThePortBackAtOnce) {
    std::atomic<int> reads{0};
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        while (!stop) {
            read(port_, 256, 20);
            ++reads;
        }
    });
    std::thread writer([&] {
        while (!stop) {
            port_.write("AT+PING", 7);
            std::this_thread::sleep_for(1ms);
        }
    });
    for (int i = 0; i < 50; ++i) {
        const int before = reads;
        test::eventually([&] { return reads > before; });
        port_.close();
        EXPECT_FALSE(port_.isOpen());
        EXPECT_EQ(openPort(port_, line_.hostPort), Port::kOpened) << "our own lock was in the way";
    }
    stop = true;
    reader.join();
    writer.join();
}

}  // namespace
}  // namespace kxorbeta_if
