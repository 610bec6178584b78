#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "velmora/csv_writer.h"
#include "velmora/live_display.h"
#include "velmora/stream_counters.h"
#include "velmora/stream_text.h"

namespace velmora::test {
namespace {

/// A raw data call in which every sample but the last is 0.
struct Call {
    int channel, count, last = 0, device = 15;

    bool addTo(StreamStatistics& statistics) const {
        std::vector<int> samples(static_cast<std::size_t>(count - 1));
        samples.push_back(last);
        return statistics.addRaw(device, channel, samples).has_value();
    }
};

TEST(StreamCounters, TakesAPacketInEveryFormForOnePacket) {
    // The numbers wanted: packets, zero packets, samples of channel 0, samples of channel 2.
    using Numbers = std::array<std::uint64_t, 4>;
    const std::vector<std::tuple<std::string, std::vector<Call>, Numbers>> cases{
        {"a packet for each of two channels", {{0, 112, -1}, {2, 112}}, {2, 1, 112, 112}},
        {"a packet of three channels", {{0, 37, 5}, {1, 37}, {2, 37}}, {1, 0, 37, 37}},
        {"the same, all zeros", {{0, 37}, {1, 37}, {2, 37}}, {1, 1, 37, 37}},
        {"the same, zeros at first", {{0, 37}, {1, 37, 5}, {2, 37, 5}}, {1, 0, 37, 37}},
        {"zeros, then values in every channel", {{0, 37}, {1, 37}, {0, 37, 5}, {1, 37, 5}}, {2, 1, 74, 0}},
        {"three channels in one call", {{-3, 111, 5}}, {1, 0, 37, 37}},
        {"a substitute for a packet of three channels", {{-3, 336}}, {1, 1, 37, 37}},
    };
    for (const auto& [what, calls, numbers] : cases) {
        StreamStatistics statistics;
        for (const Call& call : calls)
            EXPECT_TRUE(call.addTo(statistics)) << what;
        const DeviceCounters& device = statistics.counters().devices[15];
        EXPECT_EQ((Numbers{device.packets, device.zeroPackets, device.samples[0], device.samples[2]}), numbers) << what;
    }

    StreamStatistics misfits;
    EXPECT_FALSE(misfits.addRaw(0, 0, {}));
    for (const Call& call : {Call{0, 1, 0, -1}, {0, 1, 0, 16}, {16, 1}, {-17, 112}, {INT_MIN, 112}, {-3, 2}})
        EXPECT_FALSE(call.addTo(misfits)) << call.channel << " " << call.device;
    misfits.addBattery(16, 1, 1);
    EXPECT_EQ(misfits.counters().misfits, 8U);
}

TEST(StreamCounters, RatesForgetWhatLiesBeforeTheirWindow) {
    RateWindow window;
    StreamCounters counters;
    DeviceCounters& device = counters.devices[1];
    // Channel 0 slows down after ten seconds, channel 1 goes on.
    for (int second = 0; second <= 20; ++second) {
        window.add(second, counters);
        device.packets += 2;
        device.samples[0] += second < 10 ? 224 : 112;
        device.samples[1] += 200;
    }
    const DeviceRates rates = window.rates(1);
    EXPECT_EQ(rates.channels, 2);
    EXPECT_EQ((std::array{rates.packetsPerSecond, rates.slowest, rates.fastest}), (std::array{2.0, 112.0, 200.0}));
}

TEST(StreamText, SaysWhatWasFoundAndCounted) {
    // What came from the air must not reach the terminal as something to obey.
    EXPECT_EQ(headsetTable({{"A1B2C3D4E5F6", "XAI-07\r", 1}, {"A1", "AI\x1b[2J\x7f\xff", -12}}),
              "address       option  name\nA1B2C3D4E5F6       1  XAI-07\nA1               -12  AI?[2J??\n");

    StreamCounters counters;
    DeviceCounters& device = counters.devices[3];
    device.zeroPackets = 2;
    EXPECT_EQ(liveLine(3, device, {5, 8, 40, 44}), "device 3: 5.0 packets/s, 8 x 42.0 samples/s, zeros 2 (bridged?)");
    device.batteryReports = 1;
    device.batteryLevel = 87;
    const std::string spread = "device 3: 5.0 packets/s, 2 x 0.0 to 250.0 samples/s, zeros 2 (bridged?), battery 87";
    EXPECT_EQ(liveLine(3, device, {5, 2, 0, 250}), spread);

    EXPECT_EQ(summaryText(2, counters).find("Losses"), std::string::npos);
    device.packets = 10;
    device.samples[7] = 1120;
    const std::string text = summaryText(4, counters);
    for (const char* part : {"s\ndevice 3: 10 raw packets (2.5/s), 1120 samples, 2 packets", " 7: 1120\n", "Losses"})
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
}

TEST(LiveDisplay, RedrawsInPlaceWithoutWrappingAndKeepsNotesAbove) {
    std::ostringstream out;
    LiveDisplay display(out);
    display.show({"first line too long", "exactly 10"}, 10);
    display.note("note");
    display.show({"third"}, 10);
    display.show({}, 10);
    const std::string erased = "first lin\nexactly 1\n\x1b[2A\r\x1b[J";
    EXPECT_EQ(out.str(), erased + "note\n" + erased + "third\n\x1b[1A\r\x1b[J");
}

/// A disk that stands still while its gate is locked, and then takes everything or, when full, nothing.
struct Disk : std::streambuf {
    std::mutex gate;
    std::atomic<bool> reached = false;
    bool full = false;

    std::streamsize xsputn(const char*, std::streamsize count) override {
        reached = true;
        const std::lock_guard pass(gate);
        return full ? 0 : count;
    }
};

TEST(CsvWriter, WritesOneRowPerSampleInOrderEvenWhenTheyOutgrowAPortion) {
    std::stringbuf disk;
    CsvWriter writer(std::make_unique<std::ostream>(&disk));
    const std::array<int, 6> interleaved{-32768, 1, 7, 2, 32767, 3};
    std::string expected = "time,device,channel,sample,value\n";
    for (std::size_t row = 0; row < 30000; ++row) {
        if (row % 3 == 0)
            writer.push(100000.5, 15, 2, row, interleaved.data(), 3, 2);
        expected += "100000.500000,15,2," + std::to_string(row) + "," + std::to_string(interleaved[row % 3 * 2]) + "\n";
    }
    EXPECT_TRUE(writer.close());
    EXPECT_TRUE(disk.str() == expected) << disk.str().substr(0, 300);  // too long to be printed whole
}

TEST(CsvWriter, DropsAndCountsInsteadOfWaitingForTheDisk) {
    for (const bool full : {false, true}) {
        Disk disk;
        disk.full = full;
        std::unique_lock standstill(disk.gate);
        CsvWriter writer(std::make_unique<std::ostream>(&disk), 10);
        while (!disk.reached)  // then the writer holds the titles and nothing else
            std::this_thread::yield();
        for (const int count : {8, 4, 1})
            writer.push(0, 0, 0, 0, std::array<int, 8>{}.data(), count, 1);
        standstill.unlock();
        while (!writer.failed() && (full || !writer.close()))
            std::this_thread::yield();
        writer.push(0, 0, 0, 0, std::array<int, 8>{}.data(), 1, 1);
        EXPECT_EQ(writer.close(), !full);
        EXPECT_EQ(writer.writtenSamples(), full ? 0U : 9U);
        EXPECT_EQ(writer.droppedSamples(), full ? 14U : 5U);
    }
}

}  // namespace
}  // namespace velmora::test
