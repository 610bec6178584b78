// The dongle in real time on a pseudo-terminal. Nothing here depends on how fast the machine is: waits are for
// conditions, with a bound far above what they take.
#include "dongle/dongle_runner.h"

#include <fcntl.h>
#include <unistd.h>

#include "dongle_test_support.h"
#include "support/eventually.h"

namespace dongle::test {

using Clock = std::chrono::steady_clock;

using ::test::eventually;

/// A host that sets nothing about the terminal.
struct Host {
    explicit Host(const std::string& path) : descriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)) {}
    ~Host() { leave(); }
    void leave() {
        if (descriptor >= 0) {
            ::close(std::exchange(descriptor, -1));
        }
    }
    bool send(std::string_view bytes) { return ::write(descriptor, bytes.data(), bytes.size()) > 0; }
    /// Reads what is there into `seen`; false when the port has gone.
    bool look(std::size_t most = 10'240) {
        std::array<char, 10240> buffer{};
        const ssize_t count = ::read(descriptor, buffer.data(), std::min(most, buffer.size()));
        seen.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return count > 0 || (count < 0 && errno == EAGAIN);
    }
    bool sees(std::string_view text) {
        return eventually([&] { return look() && seen.find(text) != seen.npos; });
    }

    int descriptor;
    std::string seen;
};

TEST(Runner, ServesAHostUntilItHangsUp) {
    Settings settings = rawOnly(1);
    settings.line.fillBytesPerSecond = kLineBytesPerSecond;
    Runner runner(settings, makePtyTransport());
    Host host(runner.hostPath());
    EXPECT_TRUE(host.send("AT+GRPCONN=A1B2C3D4E501\0"sv) && host.sees("Group connection finish\r\n"));
    host.seen.erase(0, host.seen.find('\r') + 2);  // data may be behind it already
    // Every byte value passes the terminal unchanged, and nothing is missing between the frames.
    EXPECT_TRUE(eventually([&] { return host.look() && host.seen.size() > 60'000; }));
    runner.with([](Engine& engine) { engine.restart(); });
    EXPECT_TRUE(host.sees("Bootup"));
    const auto frames = readFrames(host.seen.substr(0, host.seen.find("Bootup")));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i].second[3] * 256U + frames[i].second[228], (0x80 + i % 8) * 256 + i / 8 % 256);
    }

    // A host that does not read costs bytes only: it is still listened to, and asks again until the line has room.
    host.send("AT+GRPCONN=A1B2C3D4E501\0"sv);
    EXPECT_TRUE(eventually([&] { return runner.counters().bytesDropped > 10'000; }));
    host.send("AT+DISCONN\0"sv);
    EXPECT_TRUE(eventually([&] { return host.send("AT+PING") && host.look() && host.seen.ends_with("AT+OK"); }));
    runner.hangUp();
    EXPECT_TRUE(eventually([&] { return !host.look(); }));
}

TEST(Runner, CountsWhatWasUnreadWhenThePortWentToTheByte) {
    Settings settings = rawOnly(1);
    settings.account = true;
    settings.line.fillBytesPerSecond = kLineBytesPerSecond;
    settings.line.gaps = false;
    Runner runner(settings, makePtyTransport);
    PacketTotals before;
    std::uint64_t written = 0, unread = 0;
    // A host stops reading in the middle of a packet; then it leaves, or the dongle is pulled out, or is gone for good.
    for (const char* const end : {"left", "unplugged", "hung up"}) {
        Host host(runner.hostPath());
        runner.with([](Engine& engine) { engine.join(1); });
        ASSERT_TRUE(host.sees("A1B2C3D4E501,1\n"));
        const std::size_t report = host.seen.find('\n') + 1;
        const std::size_t whole = (host.seen.size() - report) / 242 + 10;  // some came with the report
        while (host.seen.size() < report + whole * 242 + 100) {
            host.look(report + whole * 242 + 100 - host.seen.size());
        }
        // The line is full to the last byte, behind a packet of which it took a part.
        const auto dropped = runner.counters().bytesDropped;
        EXPECT_TRUE(eventually([&] { return runner.counters().bytesDropped > dropped + 10'000; }));
        if (end == "left"sv) {
            host.leave();
            EXPECT_TRUE(eventually([&] { return runner.counters().bytesUnread > 0; }));
        }
        end == "hung up"sv ? runner.hangUp() : runner.unplug();
        const PacketTotals sum = runner.with([](Engine& engine) { return engine.account()->sum(); });
        const RunnerCounters counters = runner.counters();
        const std::uint64_t left = counters.bytesUnread - unread;
        EXPECT_EQ(counters.bytesWritten - written, host.seen.size() + left) << end;
        EXPECT_EQ(sum.whole - before.whole, whole) << end;
        EXPECT_EQ(sum.unread - before.unread, (left + 100) / 242) << end << ", and what is behind them is cut";
        EXPECT_EQ(sum.produced, sum.whole + sum.unread + sum.dropped);
        EXPECT_EQ(counters.unknownRests, 0U);
        before = sum, written = counters.bytesWritten, unread = counters.bytesUnread;
        if (end != "hung up"sv) {
            runner.plug();
        }
    }
}

TEST(Runner, KeepsHeadsetsForTheNextHostWhichFindsDataRunningAndNothingOld) {
    Settings settings = rawOnly(2);
    settings.line.fillBytesPerSecond = 20'000;
    Runner runner(settings, makePtyTransport());
    Host first(runner.hostPath());
    EXPECT_TRUE(first.send("AT+GRPCONN=A1B2C3D4E501\0"sv) && first.sees("AT+DAT1"));
    // It leaves a great deal unread, an answer among it.
    EXPECT_TRUE(first.send("AT+PING"));
    const auto written = runner.counters().bytesWritten;
    EXPECT_TRUE(eventually([&] { return runner.counters().bytesWritten > written + 3'000; }));
    first.leave();
    EXPECT_TRUE(eventually([&] { return runner.counters().bytesUnread >= 3'000; }));
    const auto dropped = runner.counters().bytesDropped;
    EXPECT_TRUE(eventually([&] { return runner.counters().bytesDropped > dropped + 3'000; })) << "data runs on";

    Host second(runner.hostPath());
    EXPECT_TRUE(second.sees("AT+DAT1:230#"));
    EXPECT_TRUE(second.seen.starts_with("AT+DAT1")) << "a whole write";
    EXPECT_TRUE(second.send("AT+SCAN\0"sv) && second.sees("Finish scan\r\n"));
    EXPECT_EQ(second.seen.find("AT+OK"), second.seen.npos);
    EXPECT_EQ(second.seen.find("A1B2C3D4E501,1 XAI"), second.seen.npos) << "connected";
    EXPECT_NE(second.seen.find("A1B2C3D4E502,1 XAI"), second.seen.npos);
    // It has connected nothing, and ends the connection all the same.
    EXPECT_TRUE(second.send("AT+DISCONN\0AT+SCAN\0"sv) && second.sees("A1B2C3D4E501,1 XAI"));
}

TEST(Runner, ComesBackOnANewLineEachTimeThatItIsPluggedIn) {
    int lines = 0;
    bool broken = false;
    Runner runner(rawOnly(1),
                  [&] { return ++lines, broken ? throw std::runtime_error("no more lines") : makePtyTransport(); });
    for (int i = 1; i <= 20; ++i) {
        Host host(runner.hostPath());
        EXPECT_TRUE(host.send("AT+PING") && host.sees("AT+OK"));
        const std::string before = runner.hostPath();
        runner.unplug();
        runner.unplug();
        EXPECT_FALSE(host.look());
        broken = i == 10;
        if (broken) {
            EXPECT_THROW(runner.plug(), std::runtime_error);
            EXPECT_EQ(runner.problem(), "no more lines");
            broken = false, --lines;
        }
        runner.plug();
        runner.plug();
        EXPECT_EQ(runner.problem(), "");
        EXPECT_NE(runner.hostPath(), before) << "the host still holds the old one";
        EXPECT_EQ(lines, i + 1);
    }

    Runner once(rawOnly(1), makePtyTransport());
    once.unplug();
    EXPECT_THROW(once.plug(), std::logic_error);
    Settings settings = rawOnly(1);
    settings.faults.replugEvery = 10s;
    EXPECT_THROW(Runner(settings, makePtyTransport()), std::invalid_argument);
}

/// Notes when something was written; nobody ever answers.
struct NotingTransport : Transport {
    std::string hostPath() const override { return "nowhere"; }
    std::size_t read(std::span<std::uint8_t>, Time most) override { return std::this_thread::sleep_for(most), 0; }
    std::size_t write(std::span<const std::uint8_t> all) override { return times.push_back(Clock::now()), all.size(); }
    bool hostPresent() override { return true; }
    void hangUp() override {}

    static inline std::vector<Clock::time_point> times;
};

TEST(Runner, NeverShortensAGapButDropsWhatItLeavesNoRoomForAndStopsAtOnce) {
    auto runner = std::make_unique<Runner>(rawOnly(1), std::make_unique<NotingTransport>());
    runner->with([](Engine& engine) {
        for (int i = 0; i < 10'000; ++i) {
            engine.sendRaw("text");
        }
    });
    EXPECT_TRUE(eventually([&] { return runner->counters().bytesWritten >= 12; }));
    EXPECT_GT(runner->counters().bytesDropped, 4 * 8'000U);
    // What still waits would take half a minute.
    const auto stopping = Clock::now();
    runner.reset();
    EXPECT_LT(Clock::now() - stopping, 20s);
    for (std::size_t i = 1; i < NotingTransport::times.size(); ++i) {
        EXPECT_GE(NotingTransport::times[i] - NotingTransport::times[i - 1], LineSettings{}.textGap);
    }
}

}  // namespace dongle::test
