// What the tests of the virtual dongle share: a host that asks in virtual time, and a strict reader of the data.
#pragma once

#include <cstdio>
#include <tuple>

#include "dongle/dongle_engine.h"
#include "support/testing.h"

namespace dongle::test {

using namespace std::string_view_literals;

/// Headsets that send nothing but raw frames, so that byte counts are easy.
inline Settings rawOnly(int headsets, int sampleRate = 250) {
    Settings settings = defaultSettings(headsets);
    for (HeadsetSettings& headset : settings.headsets) {
        headset.sampleRate = sampleRate;
        headset.batteryInterval = headset.postInterval = Time{0};
    }
    return settings;
}

/// Cuts data frames that follow each other without a gap into devices and payloads; what does not fit fails the test.
inline std::vector<std::pair<int, Bytes>> readFrames(std::string_view data) {
    std::vector<std::pair<int, Bytes>> frames;
    for (int device = 0, length = 0, head = 0; !data.empty(); head = 0) {
        std::sscanf(std::string(data.substr(0, 16)).c_str(), "AT+DAT%d:%d#%n", &device, &length, &head);
        const auto size = static_cast<std::size_t>(head + length);
        EXPECT_TRUE(head > 0 && data.size() >= size) << "no whole frame after " << frames.size() << " frames";
        if (testing::Test::HasFailure()) {
            break;
        }
        frames.emplace_back(device, Bytes(data.begin() + head, data.begin() + head + length));
        data.remove_prefix(size);
    }
    return frames;
}

/// An engine and the time at it.
struct Bench {
    explicit Bench(Settings settings) : engine(std::move(settings)) {}
    void send(std::string_view bytes) { engine.receive(Bytes(bytes.begin(), bytes.end()), now); }
    /// Lets time pass and returns the writes of that span, with `between` where one ends and the next begins.
    std::string pass(Time span, std::string_view between = "") {
        engine.advance(now += span);
        writes = engine.takeWrites();
        std::string all;
        for (const Write& write : writes) {
            all.append(all.empty() ? "" : between).append(write.bytes.begin(), write.bytes.end());
        }
        return all;
    }
    /// Connects the headsets 1 to `count` and passes the reports: what comes next is data.
    void connect(int count) {
        std::string request = "AT+GRPCONN=";
        for (int number = 1; number <= count; ++number) {
            request += defaultHeadset(number).address + ";";
        }
        send(request + '\0');
        pass(engine.settings().replies.connectDuration * count + engine.settings().replies.streamDelay);
    }

    Engine engine;
    Time now{0};
    std::vector<Write> writes;  // of the last span
};

}  // namespace dongle::test
