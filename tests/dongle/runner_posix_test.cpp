// The dongle in real time on a pseudo-terminal. Nothing here depends on how fast the machine is: waits are for
// conditions, with a bound far above what they take.
#include "dongle/dongle_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "dongle_test_support.h"

namespace dongle::test {

using Clock = std::chrono::steady_clock;

constexpr auto kBound = 20s;

bool eventually(const std::function<bool()>& condition) {
    const auto end = Clock::now() + kBound;
    while (!condition() && Clock::now() < end)
        std::this_thread::sleep_for(2ms);
    return condition();
}

/// A host that sets nothing about the terminal.
struct Host {
    explicit Host(const std::string& path) : descriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)) {}
    ~Host() { ::close(descriptor); }
    bool send(std::string_view bytes) { return ::write(descriptor, bytes.data(), bytes.size()) > 0; }
    /// Reads what is there into `seen`; false when the port has gone.
    bool look() {
        std::array<char, 10240> buffer{};
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
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
    host.seen.clear();
    // Every byte value passes the terminal unchanged, and nothing is missing between the frames.
    EXPECT_TRUE(eventually([&] { return host.look() && host.seen.size() > 60'000; }));
    runner.with([](Engine& engine) { engine.restart(); });
    EXPECT_TRUE(host.sees("Bootup"));
    const auto frames = readFrames(host.seen.substr(0, host.seen.find("Bootup")));
    for (std::size_t i = 0; i < frames.size(); ++i)
        ASSERT_EQ(frames[i].second[3] * 256U + frames[i].second[228], (0x80 + i % 8) * 256 + i / 8 % 256);

    // A host that does not read costs bytes only: it is still listened to, and asks again until the line has room.
    host.send("AT+GRPCONN=A1B2C3D4E501\0"sv);
    EXPECT_TRUE(eventually([&] { return runner.counters().bytesDropped > 10'000; }));
    host.send("AT+DISCONN\0"sv);
    EXPECT_TRUE(eventually([&] { return host.send("AT+PING") && host.look() && host.seen.ends_with("AT+OK"); }));
    runner.hangUp();
    EXPECT_TRUE(eventually([&] { return !host.look(); }));
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
        for (int i = 0; i < 10'000; ++i)
            engine.sendRaw("text");
    });
    EXPECT_TRUE(eventually([&] { return runner->counters().bytesWritten >= 12; }));
    EXPECT_GT(runner->counters().bytesDropped, 4 * 8'000U);
    // What still waits would take half a minute.
    const auto stopping = Clock::now();
    runner.reset();
    EXPECT_LT(Clock::now() - stopping, kBound);
    for (std::size_t i = 1; i < NotingTransport::times.size(); ++i)
        EXPECT_GE(NotingTransport::times[i] - NotingTransport::times[i - 1], LineSettings{}.textGap);
}

}  // namespace dongle::test
