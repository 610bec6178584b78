// velmora on a live line: velmora-session-live [SECONDS [side-by-side]]. Lines that are full at 200,000 bytes per
// second, fed by a process of its own in writes of 18, 4 and 1 ms that cut packets anywhere; read by velmora and by
// loops that only poll and read. Prints one "name value" a line: processor time of the whole reading process in percent
// of one core and as a ratio of the bare loop's, the time from the last byte of a packet to the call that returned it,
// packets lost. Side by side: VelmoraSDK and velmora on one and the same stream of 16 headsets.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dongle/headset_frames.h"
#include "sdk/VelmoraSDK.h"
#include "velmora/velmora.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr double kBytesPerSecond = 200'000;
constexpr int kChannels = 8;
constexpr std::size_t kTimes = 1U << 16U;

std::int64_t now() {
    return Clock::now().time_since_epoch().count();
}

/// What a line carries again and again: 256 packets of each channel, after which their counters begin anew.
struct Stream {
    explicit Stream(int headsets) {
        std::vector<std::int16_t> samples(dongle::kSamplesPerFrame, 1);
        for (int n = 0; n < 256 * kChannels * headsets; ++n) {
            const int turn = n / headsets;
            samples[1] = static_cast<std::int16_t>(n);  // says which it is; 16 headsets make 32,768
            const auto frame = dongle::dataEnvelope(
                n % headsets,
                dongle::singleChannelFrame(turn % kChannels, samples, static_cast<std::uint8_t>(turn / kChannels)));
            cycle.append(frame.begin(), frame.end());
            ends.push_back(cycle.size());
        }
        cycle += cycle.substr(0, kLargestWrite);
    }
    /// How many packets are whole in so many bytes.
    std::uint64_t packets(std::uint64_t bytes) const {
        const auto last = std::upper_bound(ends.begin(), ends.end(), bytes % ends.back());
        return bytes / ends.back() * ends.size() + static_cast<std::uint64_t>(last - ends.begin());
    }

    static constexpr std::size_t kLargestWrite = 65'536;
    std::string cycle;
    std::vector<std::size_t> ends;
};

/// What the feeder tells of its first line: when the write began that carried the last byte of a packet.
struct Fed {
    std::array<std::atomic<std::int64_t>, kTimes> written;
    std::atomic<std::uint64_t> packets;  // whole ones, on each line
    std::atomic<std::uint64_t> refused;  // bytes that a line did not take
};

/// Pseudo-terminals in raw mode: the dongle's ends open, the hosts' by name.
struct Lines {
    explicit Lines(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            std::array<char, 128> name{};
            int master = -1;
            int slave = -1;
            termios raw{};
            cfmakeraw(&raw);
            if (openpty(&master, &slave, name.data(), &raw, nullptr) != 0) {
                throw std::runtime_error("no pseudo-terminal");
            }
            close(slave);
            masters.push_back(master);
            paths.emplace_back(name.data());
        }
    }
    ~Lines() {
        for (const int master : masters) {
            close(master);
        }
    }
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;

    std::vector<int> masters;
    std::vector<std::string> paths;
};

/// The feeding process.
void feed(const std::vector<int>& masters, const Stream& stream, Fed& fed, std::chrono::milliseconds interval,
          std::chrono::seconds howLong) {
    const auto began = Clock::now();
    std::uint64_t sent = 0;
    for (auto next = began; next < began + howLong;) {
        next += interval;
        std::this_thread::sleep_until(next);
        const double passed = std::chrono::duration<double>(next - began).count();
        const auto due = static_cast<std::uint64_t>(passed * kBytesPerSecond);
        for (std::uint64_t packet = stream.packets(sent); packet < stream.packets(due); ++packet) {
            fed.written[packet % kTimes] = now();
        }
        for (const int master : masters) {
            const ssize_t taken = write(master, stream.cycle.data() + sent % stream.ends.back(), due - sent);
            fed.refused += due - sent - static_cast<std::uint64_t>(std::max<ssize_t>(taken, 0));
        }
        sent = due;
        fed.packets = stream.packets(sent);
    }
}

double processSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

struct Result {
    double cpuSeconds = 0;
    std::uint64_t sent = 0;
    std::uint64_t refused = 0;
    std::uint64_t received = 0;
    std::vector<double> latencies;  // milliseconds
};

using Fill = std::function<void(Fed&, const Stream&, const Lines&, std::atomic<bool>& stop, Result&)>;

/// Feeds `count` lines from another process while `host` reads them in this one, on a thread of its own.
Result measure(std::size_t count, int headsets, std::chrono::milliseconds interval, std::chrono::seconds howLong,
               const Fill& host) {
    void* const memory = mmap(nullptr, sizeof(Fed), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("no shared memory");
    }
    Fed& fed = *new (memory) Fed{};
    const Stream stream(headsets);
    Result result;
    {
        const Lines lines(count);
        int gate[2];
        if (pipe(gate) != 0) {
            throw std::runtime_error("no pipe");
        }
        const pid_t feeder = fork();  // nobody else runs yet
        if (feeder == 0) {
            close(gate[1]);
            char go = 0;
            if (read(gate[0], &go, 1) == 1) {
                feed(lines.masters, stream, fed, interval, howLong);
            }
            _exit(0);
        }
        std::atomic<bool> stop{false};
        std::thread reading([&] { host(fed, stream, lines, stop, result); });
        std::this_thread::sleep_for(500ms);
        const double before = processSeconds();
        if (write(gate[1], "", 1) != 1) {
            throw std::runtime_error("the feeder is gone");
        }
        waitpid(feeder, nullptr, 0);
        result.cpuSeconds = processSeconds() - before;
        std::this_thread::sleep_for(200ms);
        stop = true;
        reading.join();
        close(gate[0]);
        close(gate[1]);
        result.sent = fed.packets * count;
        result.refused = fed.refused;
    }
    munmap(memory, sizeof(Fed));
    return result;
}

void noteLatency(Fed& fed, std::uint64_t packet, Result& result) {
    result.latencies.push_back(static_cast<double>(now() - fed.written[packet % kTimes]) / 1e6);
}

/// A loop that only polls and reads; with a host it hands every read to another thread, which wakes for it.
void bare(Fed* fed, const Stream& stream, const std::string& path, std::atomic<bool>& stop, std::uint64_t& received,
          Result* result, bool withHost) {
    const int port = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    const int handed = eventfd(0, EFD_NONBLOCK);
    std::thread host;
    if (withHost) {
        host = std::thread([&] {
            pollfd watched{handed, POLLIN, 0};
            while (!stop) {
                if (poll(&watched, 1, 100) > 0) {
                    eventfd_t count = 0;
                    eventfd_read(handed, &count);
                }
            }
        });
    }
    std::array<char, 16384> bytes{};
    std::uint64_t total = 0;
    pollfd watched{port, POLLIN, 0};
    while (!stop) {
        if (poll(&watched, 1, 100) <= 0) {
            continue;
        }
        const ssize_t count = read(port, bytes.data(), bytes.size());
        if (count <= 0) {
            continue;
        }
        if (withHost) {
            eventfd_write(handed, 1);
        }
        const std::uint64_t before = stream.packets(total);
        total += static_cast<std::uint64_t>(count);
        if (fed != nullptr) {
            for (std::uint64_t packet = before; packet < stream.packets(total); ++packet) {
                noteLatency(*fed, packet, *result);
            }
        }
    }
    if (host.joinable()) {
        host.join();
    }
    received = stream.packets(total);
    close(handed);
    close(port);
}

void velmoraHost(Fed* fed, const Stream&, const std::string& path, std::atomic<bool>& stop, std::uint64_t& received,
                 Result* result, std::size_t min) {
    velmora::Dongle dongle(path);
    dongle.start();
    std::vector<velmora::Record> records(1024);
    while (!stop) {
        const velmora::Batch batch = dongle.read(records, min, min > 1 ? 50ms : 100ms);
        for (const velmora::Record& record : batch.records) {
            if (record.kind == VELMORA_RAW) {
                if (fed != nullptr) {
                    noteLatency(*fed, received, *result);
                }
                ++received;
            }
        }
    }
}

/// `one` for each line, on a thread for each.
template <typename One>
Fill forEachLine(One one) {
    return [one](Fed& fed, const Stream& stream, const Lines& lines, std::atomic<bool>& stop, Result& result) {
        const std::vector<std::string>& paths = lines.paths;
        result.latencies.reserve(1'000'000);
        std::vector<std::uint64_t> received(paths.size());
        std::vector<std::thread> hosts;
        for (std::size_t i = 1; i < paths.size(); ++i) {
            hosts.emplace_back([&, i] { one(nullptr, stream, paths[i], stop, received[i], &result); });
        }
        one(&fed, stream, paths[0], stop, received[0], &result);
        for (std::thread& host : hosts) {
            host.join();
        }
        for (const std::uint64_t count : received) {
            result.received += count;
        }
    };
}

Fill bareLoop(bool withHost) {
    return forEachLine([withHost](Fed* fed, const Stream& stream, const std::string& path, std::atomic<bool>& stop,
                                  std::uint64_t& received,
                                  Result* result) { bare(fed, stream, path, stop, received, result, withHost); });
}

Fill velmoraHosts(std::size_t min) {
    return forEachLine([min](Fed* fed, const Stream& stream, const std::string& path, std::atomic<bool>& stop,
                             std::uint64_t& received,
                             Result* result) { velmoraHost(fed, stream, path, stop, received, result, min); });
}

// VelmoraSDK has one context and plain functions for callbacks.
Fed* sdkFed = nullptr;
Result* sdkResult = nullptr;

/// Substitutes for lost packets are zeros; the feeder's samples are not.
void onRaw(int, int, int* samples, int) {
    if (samples[0] != 0) {
        ++sdkResult->received;
    }
}

/// A packet says in its second sample which one of its cycle it is.
void noteLatency(Fed& fed, const Stream& stream, int second, Result& result) {
    const std::uint64_t cycle = stream.ends.size();
    const std::uint64_t latest = fed.packets + cycle / 2;  // what is being written is not counted yet
    std::uint64_t packet = latest / cycle * cycle + static_cast<std::uint64_t>(second);
    if (packet > latest && packet >= cycle) {
        packet -= cycle;
    }
    noteLatency(fed, packet, result);
}

const Stream* sdkStream = nullptr;

void onRawTimed(int device, int channel, int* samples, int count) {
    onRaw(device, channel, samples, count);
    if (samples[0] != 0) {
        noteLatency(*sdkFed, *sdkStream, samples[1], *sdkResult);
    }
}

/// Plays the dongle while the host connects.
void answerConnection(int master) {
    const auto say = [master](const std::string& text) {
        if (write(master, text.data(), text.size()) < 0) {
            std::perror("answer");
        }
        std::this_thread::sleep_for(30ms);
    };
    std::string heard;
    while (heard.find("AT+GRPCONN") == std::string::npos) {
        std::array<char, 256> bytes{};
        const ssize_t count = read(master, bytes.data(), bytes.size());
        heard.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    say("Service connected. A1B2C3D4E501,1\n");
    say("Group connection finish\r\n");
}

Fill velmoraSdk() {
    return [](Fed& fed, const Stream& stream, const Lines& lines, std::atomic<bool>& stop, Result& result) {
        sdkFed = &fed;
        sdkStream = &stream;
        sdkResult = &result;
        result.latencies.reserve(1'000'000);
        SDK_SetRawDataCallback(onRawTimed);
        SDK_Init();
        std::thread dongle([&] { answerConnection(lines.masters[0]); });
        const bool connected =
            SDK_ConnectPort(lines.paths[0].c_str()) == 1 && SDK_ConnectDevice("A1B2C3D4E501", 0) == 1;
        dongle.join();
        if (!connected || SDK_StartDataCollection() != 1) {
            std::fprintf(stderr, "VelmoraSDK does not connect\n");
        }
        while (!stop) {
            std::this_thread::sleep_for(100ms);
        }
        SDK_Cleanup();
    };
}

void print(const std::string& name, double value) {
    std::printf("%-44s %.3f\n", name.c_str(), value);
    std::fflush(stdout);
}

double percentile(std::vector<double>& values, double which) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(which * static_cast<double>(values.size() - 1))];
}

void sideBySide(std::chrono::seconds howLong) {
    const struct {
        const char* name;
        Fill host;
    } libraries[] = {{"VelmoraSDK", velmoraSdk()}, {"velmora", velmoraHosts(1)}};
    for (const auto& library : libraries) {
        Result result = measure(1, 16, 4ms, howLong, library.host);
        const std::string name = library.name;
        print(name + "_sent", static_cast<double>(result.sent));
        print(name + "_delivered", static_cast<double>(result.received));
        print(name + "_lost", static_cast<double>(result.sent - result.received));
        print(name + "_latency_ms_median", percentile(result.latencies, 0.5));
        print(name + "_latency_ms_p99", percentile(result.latencies, 0.99));
        print(name + "_cpu_percent", 100 * result.cpuSeconds / static_cast<double>(howLong.count()));
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::chrono::seconds howLong(argc > 1 ? std::atoi(argv[1]) : 10);
    if (argc > 2) {
        sideBySide(howLong);
        return 0;
    }
    const auto percent = [&](const Result& result) {
        return 100 * result.cpuSeconds / static_cast<double>(howLong.count());
    };
    const auto lost = [](const Result& result) { return static_cast<double>(result.sent - result.received); };
    constexpr std::size_t kBatch = 41;  // 50 ms of a full line
    for (const int interval : {18, 4, 1}) {
        const std::string name = std::to_string(interval) + "ms_";
        const std::chrono::milliseconds pause(interval);
        Result loop = measure(1, 1, pause, howLong, bareLoop(false));
        Result single = measure(1, 1, pause, howLong, velmoraHosts(1));
        const Result batched = measure(1, 1, pause, howLong, velmoraHosts(kBatch));
        print(name + "bare_cpu_percent", percent(loop));
        print(name + "velmora_cpu_percent", percent(single));
        print(name + "min1_of_bare", percent(single) / percent(loop));
        print(name + "batched_of_bare", percent(batched) / percent(loop));
        print(name + "bare_latency_ms_median", percentile(loop.latencies, 0.5));
        print(name + "bare_latency_ms_p99", percentile(loop.latencies, 0.99));
        print(name + "latency_ms_median", percentile(single.latencies, 0.5));
        print(name + "latency_ms_p99", percentile(single.latencies, 0.99));
        print(name + "lost", lost(single) + lost(batched));
        print(name + "refused_bytes", static_cast<double>(single.refused + batched.refused));
    }
    const Result pairs = measure(16, 1, 4ms, howLong, bareLoop(true));
    const Result sixteen = measure(16, 1, 4ms, howLong, velmoraHosts(1));
    print("16_dongles_bare_pairs_cpu_percent", percent(pairs));
    print("16_dongles_cpu_percent", percent(sixteen));
    print("16_dongles_of_bare_pairs", percent(sixteen) / percent(pairs));
    print("16_dongles_lost", lost(sixteen));
    print("16_dongles_refused_bytes", static_cast<double>(sixteen.refused));
    return 0;
}
