// The live path: velmora-live [SECONDS]. A line that is full at 200,000 bytes per second, read by the library and by
// loops that only poll and read; processor time of the reading threads, and the time from the last byte of a burst to
// the host's callback for the last packet in it. Prints one "name value" a line.

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sdk/VelmoraSDK.h"
#include "support/stream_builder.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kPacketsPerBurst = 16;
constexpr double kBytesPerSecond = 200'000;

/// A pseudo-terminal in raw mode: the dongle's end open, the host's by name.
struct Line {
    Line() {
        std::array<char, 128> name{};
        int slave = -1;
        termios raw{};
        cfmakeraw(&raw);
        if (openpty(&master, &slave, name.data(), &raw, nullptr) != 0) {
            throw std::runtime_error("no pseudo-terminal");
        }
        close(slave);
        path = name.data();
    }
    ~Line() { close(master); }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    void write(const std::string& bytes) const {
        if (::write(master, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            std::fprintf(stderr, "the line did not take a burst\n");
        }
    }
    int master = -1;
    std::string path;
};

std::atomic<std::int64_t> burstWritten{0};
std::int64_t now() {
    return Clock::now().time_since_epoch().count();
}

/// Writes bursts of whole frames at the full rate.
void feed(const Line& line, std::chrono::seconds howLong) {
    const std::vector<int> samples(test::kSlots, 1);
    int counter = 0;
    auto next = Clock::now();
    for (const auto end = next + howLong; next < end;) {
        std::string burst;
        for (int i = 0; i < kPacketsPerBurst; ++i) {
            const test::Bytes frame = test::envelope(1, test::rawFrame(test::singleChannel(0), samples, counter++));
            burst.append(frame.begin(), frame.end());
        }
        line.write(burst);
        burstWritten = now();
        next += std::chrono::nanoseconds(
            static_cast<std::int64_t>(static_cast<double>(burst.size()) / kBytesPerSecond * 1e9));
        std::this_thread::sleep_until(next);
    }
}

double secondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

clockid_t linkClock;
std::atomic<long> packets{0};
std::vector<double> latencies;  // milliseconds; the link thread's until it has ended

void onEvent(unsigned code, unsigned) {
    if (code == 4) {
        pthread_getcpuclockid(pthread_self(), &linkClock);
    }
}

void onRaw(int, int, int*, int) {
    if (++packets % kPacketsPerBurst == 0) {
        latencies.push_back(static_cast<double>(now() - burstWritten) / 1e6);
    }
}

/// Plays the dongle while the host connects.
void answerConnection(const Line& line) {
    std::string heard;
    while (heard.find("AT+GRPCONN") == std::string::npos) {
        std::array<char, 256> bytes{};
        const ssize_t count = read(line.master, bytes.data(), bytes.size());
        heard.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    line.write("Service connected. A1B2C3D4E501,1\n");
    std::this_thread::sleep_for(30ms);
    line.write("Group connection finish\r\n");
}

double measureLibrary(std::chrono::seconds howLong) {
    const Line line;
    latencies.reserve(100'000);
    SDK_SetEventCallback(onEvent);
    SDK_SetRawDataCallback(onRaw);
    SDK_Init();
    if (SDK_ConnectPort(line.path.c_str()) != 1) {
        throw std::runtime_error("the port cannot be opened");
    }
    std::thread dongle([&] { answerConnection(line); });
    const int connected = SDK_ConnectDevice("A1B2C3D4E501", 0);
    dongle.join();
    if (connected != 1 || SDK_StartDataCollection() != 1) {
        throw std::runtime_error("no connection");
    }
    const double before = secondsOf(linkClock);
    feed(line, howLong);
    const double used = secondsOf(linkClock) - before;
    std::this_thread::sleep_for(100ms);
    SDK_Cleanup();
    return used;
}

/// A loop that does nothing but poll and read; with a gap it waits, as the library does, until 10 ms pass without a
/// byte.
double measureBareLoop(std::chrono::seconds howLong, bool waitsForGap) {
    const Line line;
    const int host = open(line.path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    std::atomic<bool> stop{false};
    std::atomic<double> used{0};
    std::thread reader([&] {
        std::array<char, 10240> bytes{};
        pollfd watched{host, POLLIN, 0};
        while (!stop) {
            for (int wait = 20; poll(&watched, 1, wait) > 0; wait = 10) {
                const ssize_t count = read(host, bytes.data(), bytes.size());
                if (count <= 0 || !waitsForGap) {
                    break;
                }
            }
        }
        used = secondsOf(CLOCK_THREAD_CPUTIME_ID);
    });
    feed(line, howLong);
    stop = true;
    reader.join();
    close(host);
    return used;
}

double percentile(std::vector<double>& values, double share) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) {
    const std::chrono::seconds howLong(argc > 1 ? std::max(1, std::atoi(argv[1])) : 10);
    try {
        const double bare = measureBareLoop(howLong, false);
        const double bareWithGap = measureBareLoop(howLong, true);
        const double library = measureLibrary(howLong);
        std::printf("library_cpu_percent %.3f\n", library / static_cast<double>(howLong.count()) * 100);
        std::printf("of_bare_loop %.2f\n", library / bare);
        std::printf("of_bare_loop_with_gap %.2f\n", library / bareWithGap);
        std::printf("packets %ld\n", packets.load());
        std::printf("latency_ms_median %.3f\n", percentile(latencies, 0.5));
        std::printf("latency_ms_p99 %.3f\n", percentile(latencies, 0.99));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velmora-live: %s\n", error.what());
        return 1;
    }
    return 0;
}
