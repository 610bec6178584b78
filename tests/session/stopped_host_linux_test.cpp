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

constexpr auto kStopped = 3s;

/// What a host has to say of the packets that it read.
struct Report {
    int packets, wrong;
    std::int64_t longestPause;  // nanoseconds between two reads
};

/// Reads until a second behind the pause, and tells `told` of the first packets and of what came of it all.
void runHost(const std::string& path, int told) {
    velmora::Dongle dongle(path);
    dongle.start();
    velmora_wanted wanted{};
    dongle::defaultHeadset(1).address.copy(wanted.address, 12);
    dongle.connect(std::span(&wanted, 1), 20s);
    Report report{};
    std::array<std::int64_t, 2> next{};  // sample of each channel
    std::vector<velmora_record> records(64);
    std::int64_t last = velmora_now();
    for (int behind = 0; behind < 6;) {
        const auto batch = dongle.read(records, 1, 20s);
        report.longestPause = std::max(report.longestPause, velmora_now() - last);
        last = velmora_now();
        for (const velmora_record& record : batch.records) {
            if (record.kind != VELMORA_RAW) {
                continue;
            }
            std::int64_t& sample = next.at(record.channel);
            const bool first = sample == 0;
            report.wrong += record.sample != sample || record.lost + record.dropped != 0 ||
                            record.flags != (first ? VELMORA_FLAG_FIRST : 0) ||
                            record.samples[5] != dongle::sampleValue(1, record.channel, std::uint64_t(sample) + 5);
            sample += 112;
            behind += report.longestPause > std::chrono::nanoseconds(kStopped).count() / 2;
            if (++report.packets == 4) {
                EXPECT_EQ(::write(told, "4", 1), 1);
            }
        }
    }
    EXPECT_EQ(::write(told, &report, sizeof report), ssize_t{sizeof report});
}

TEST(StoppedHost, LosesNothingAndItsTimeLineDoesNotJump) {
    int path[2], told[2];
    ASSERT_EQ(::pipe(path) | ::pipe(told), 0);
    const pid_t host = ::fork();
    if (host == 0) {
        char text[256] = {};
        EXPECT_GT(::read(path[0], text, sizeof text - 1), 0);
        runHost(text, told[1]);
        ::_exit(0);
    }
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
    std::this_thread::sleep_for(kStopped);
    ::kill(host, SIGCONT);
    Report report{};
    ASSERT_EQ(::read(told[0], &report, sizeof report), ssize_t{sizeof report});
    EXPECT_GT(report.packets, 15);
    EXPECT_EQ(report.wrong, 0);
    EXPECT_GT(report.longestPause, std::chrono::nanoseconds(kStopped).count() / 2);
    ::waitpid(host, nullptr, 0);
}

}  // namespace
