// A long session at full line rate with 16 headsets and every kind of damage: soak_program SECONDS.
// Watches that the stream never stands still, that every packet is a headset's own or zeros, that the zeros are those
// whose losses the log names, and that memory stays flat. Prints its figures; exit code 0 when all holds.

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dongle/dongle_runner.h"
#include "dongle/headset_frames.h"
#include "sdk/VelmoraSDK.h"
#include "support/process_memory.h"
#include "support/test_line.h"
#include "support/working_folder.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kHeadsets = 16;
constexpr int kChannels = 8;
constexpr int kPacket = dongle::kSamplesPerFrame;

/// The packet that each channel has got to. Only the link thread touches it.
std::array<std::array<std::uint64_t, kChannels>, kHeadsets> nextPacket;

/// Whether a packet is one of those that its headset may have sent by now.
bool recognises(int device, int channel, const int* samples) {
    std::uint64_t& next = nextPacket.at(static_cast<std::size_t>(device)).at(static_cast<std::size_t>(channel));
    const std::uint64_t start = next > 2 ? next - 2 : 0;  // packets are lost, or come twice
    for (std::uint64_t packet = start; packet < start + 400; ++packet) {
        std::uint64_t n = packet * kPacket;
        if (std::all_of(samples, samples + kPacket,
                        [&](int sample) { return sample == dongle::sampleValue(device, channel, n++); })) {
            next = packet + 1;
            return true;
        }
    }
    return false;
}

std::atomic<long> good{0};
std::atomic<long> zeros{0};
std::atomic<long> strange{0};
std::atomic<long> events{0};

void onRaw(int device, int channel, int* samples, int count) {
    if (count == kPacket && std::all_of(samples, samples + count, [](int sample) { return sample == 0; })) {
        ++zeros;
    } else if (count == kPacket && device >= 0 && device < kHeadsets && channel >= 0 && channel < kChannels &&
               recognises(device, channel, samples)) {
        ++good;
    } else {
        ++strange;
    }
}

void onEvent(unsigned, unsigned) {
    ++events;
}

/// Packets that the log says were made up: losses of one or two.
long bridgedByLog(const std::string& path) {
    std::ifstream log(path);
    long bridged = 0;
    for (std::string line; std::getline(log, line);) {
        if (const std::size_t at = line.find(", num: "); at != std::string::npos) {
            const int loss = std::stoi(line.substr(at + 7));
            bridged += loss == 1 || loss == 2 ? loss : 0;
        }
    }
    return bridged;
}

int failures = 0;
void expect(bool holds, const char* what) {
    if (!holds) {
        std::printf("not so: %s\n", what);
        ++failures;
    }
}

dongle::Settings settings() {
    dongle::Settings all = dongle::defaultSettings(kHeadsets);
    all.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    all.replies.connectDuration = 20ms;
    for (dongle::HeadsetSettings& headset : all.headsets) {
        headset.channels = kChannels;
        headset.joinAfter = headset.index == 1 ? 0ms : 10ms;
    }
    all.faults.lose = 0.005;
    all.faults.repeat = 0.002;
    all.faults.corrupt = 0.002;
    all.faults.split = 0.02;
    all.faults.stray = 0.01;
    return all;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
    if (seconds <= 0) {
        std::fprintf(stderr, "usage: soak_program SECONDS\n");
        return 2;
    }
    const test::WorkingFolder folder;
    test::TestLine line = test::plugLine();
    dongle::Runner dongle(settings(), std::move(line.dongleEnd));

    SDK_SetRawDataCallback(onRaw);
    SDK_SetEventCallback(onEvent);
    if (SDK_Init() != 1 || SDK_ConnectPort(line.hostPort.c_str()) != 1 || SDK_ConnectDevice("A1B2C3D4E501", 0) != 1 ||
        SDK_StartDataCollection() != 1) {
        std::printf("no connection\n");
        return 1;
    }

    std::mt19937 random(1);
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(seconds);
    std::size_t settled = 0;
    long longestSilence = 0;
    while (Clock::now() < end) {
        const long before = good;
        std::this_thread::sleep_for(500ms);
        longestSilence = good == before ? longestSilence + 1 : 0;
        if (longestSilence > 20) {  // ten seconds on a line that is never quiet
            break;
        }
        if (settled == 0 && Clock::now() - start > std::chrono::seconds(seconds) / 5) {
            settled = test::processMemory();
        }
        const int index = static_cast<int>(random() % kHeadsets);
        dongle.with(
            [&](dongle::Engine& engine) { engine.connected(index) ? engine.disconnect(index) : engine.join(index); });
    }
    const std::size_t finallyUsed = test::processMemory();
    // What comes after collection has ended is logged and not delivered, so the last of the data is waited for.
    dongle.with([](dongle::Engine& engine) { engine.setSilent(true); });
    for (long before = -1; before != good + zeros + strange;) {
        before = good + zeros + strange;
        std::this_thread::sleep_for(300ms);
    }
    SDK_DisconnectPort();
    SDK_Cleanup();

    dongle::HeadsetCounters sum;
    for (int index = 0; index < kHeadsets; ++index) {
        const auto counters = dongle.with([&](dongle::Engine& engine) { return engine.headsetCounters(index); });
        sum.rawSent += counters.rawSent;
        sum.rawLost += counters.rawLost;
        sum.rawRepeated += counters.rawRepeated;
        sum.rawCorrupted += counters.rawCorrupted;
    }
    const long bridged = bridgedByLog(folder.path().string() + "/kxsdk.log");
    const auto onLine = dongle.counters();
    std::cout << "sent " << sum.rawSent << " packets (" << onLine.bytesWritten << " bytes, " << onLine.bytesDropped
              << " dropped by the line), lost " << sum.rawLost << ", repeated " << sum.rawRepeated << ", damaged "
              << sum.rawCorrupted << "\nreceived " << good << " good, " << zeros << " zeros (" << bridged
              << " by the log), " << strange << " other, " << events << " events\nmemory " << settled / 1024
              << " KiB after a fifth of the time, " << finallyUsed / 1024 << " KiB at the end\n";

    const auto sent = static_cast<long>(sum.rawSent + sum.rawRepeated);
    expect(longestSilence <= 20, "the stream goes on");
    expect(good <= sent, "no more good packets than were sent");
    expect(good > sent - sent / 10, "nine of ten packets arrive");
    expect(zeros == bridged, "every zero packet stands for a loss that the log names");
    expect(strange <= static_cast<long>(sum.rawCorrupted), "a strange packet is one that was damaged");
    expect(settled == 0 || finallyUsed < settled + (4u << 20), "memory stays flat");
    return failures == 0 ? 0 : 1;
}
