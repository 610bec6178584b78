#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <thread>
#include <vector>

#include "dongle/dongle_runner.h"
#include "dongle/headset_frames.h"
#include "support/test_line.h"
#include "velmora/velmora.hpp"

// A program of its own: what is forked must have no threads yet.

namespace {

using namespace std::chrono_literals;

/// Reads from four packets before it is stopped until six behind. How many packets were not as sent, or lay wrong.
int runHost(const std::string& path, int told) noexcept {
    velmora::Dongle dongle(path);
    dongle.start();
    velmora_wanted wanted{};
    dongle::defaultHeadset(1).address.copy(wanted.address, 12);
    dongle.connect(std::span(&wanted, 1), 20s);
    std::array<std::int64_t, 2> next{};  // sample of each channel
    std::vector<velmora_record> records(64);
    int wrong = 0;
    bool stopped = false;
    std::int64_t last = velmora_now();
    for (int packets = 0, behind = 0; behind < 6;) {
        const auto batch = dongle.read(records, 1, 20s);
        if (batch.status != VELMORA_OK) {
            return 100;
        }
        const std::int64_t now = velmora_now();
        stopped |= now - last > 2'000'000'000;
        last = now;
        for (const velmora_record& record : batch.records) {
            if (record.kind != VELMORA_RAW) {
                continue;
            }
            std::int64_t& sample = next.at(record.channel);
            wrong += record.sample != sample || record.lost + record.dropped != 0 ||
                     record.flags != (sample == 0 ? VELMORA_FLAG_FIRST : 0) ||
                     record.samples[5] != dongle::sampleValue(1, record.channel, std::uint64_t(sample) + 5);
            sample += 112;
            behind += stopped ? 1 : 0;
            wrong += ++packets == 4 && ::write(told, "4", 1) != 1;
        }
    }
    return wrong;
}

TEST(StoppedHost, LosesNothingAndItsTimeLineDoesNotJump) {
    int path[2], told[2];
    ASSERT_EQ(::pipe(path) | ::pipe(told), 0);
    const pid_t host = ::fork();
    if (host == 0) {
        char text[256] = {};
        ::_exit(::read(path[0], text, sizeof text - 1) > 0 ? runHost(text, told[1]) : 1);
    }
    ::close(told[1]);  // so that the host's end is seen
    dongle::Settings settings = dongle::defaultSettings(1);
    settings.headsets[0].channels = 2;  // a kilobyte a second: less than the system keeps of a pseudo-terminal
    settings.headsets[0].postInterval = 0ms;
    settings.replies.connectDuration = 5ms;
    test::TestLine line = test::plugLine();
    dongle::Runner runner(settings, std::move(line.dongleEnd));
    ASSERT_GT(::write(path[1], line.hostPort.c_str(), line.hostPort.size()), 0);
    char ready = 0;
    ASSERT_EQ(::read(told[0], &ready, 1), 1);
    ::kill(host, SIGSTOP);
    std::this_thread::sleep_for(3s);
    ::kill(host, SIGCONT);
    int status = -1;
    ::waitpid(host, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(runner.counters().bytesDropped, 0u) << "else the line has lost what the host does not have";
}

}  // namespace
