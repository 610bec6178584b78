// The same in C++20: shows all headsets of a dongle, survives restarts and unplugging, ends on Ctrl-C.
// Usage: many_headsets_cpp [PORT]
#include <csignal>
#include <cstdio>
#include <map>
#include <vector>

#include "velmora/velmora.hpp"

static velmora::Cancel interrupted;

static void collect(velmora::Dongle& dongle) {
    static std::map<int, std::pair<unsigned long, unsigned long>> counts;  // by headset: packets, lost
    std::vector<velmora::Record> records(256);
    std::int64_t next = velmora_now() + 1'000'000'000;
    for (;;) {
        const auto batch = dongle.read(records, records.size(), std::chrono::milliseconds(100), &interrupted);
        for (const velmora::Record& record : batch.records) {
            if (record.kind == VELMORA_RAW) {
                counts[record.headset].first += 1;
                counts[record.headset].second += record.lost + record.dropped;
            } else if (record.kind == VELMORA_EVENT && record.code == VELMORA_EVENT_RESTARTED) {
                return;
            }
        }
        if (batch.status != VELMORA_OK && batch.status != VELMORA_TIMEOUT) {
            return;
        }
        for (; velmora_now() >= next; next += 1'000'000'000) {
            for (const velmora::Headset& headset : dongle.headsets()) {
                const auto [packets, lost] = counts[headset.number];
                std::printf("%s %-16s %-9s %8lu packets, %lu lost\n", headset.address, headset.name,
                            headset.connected ? "connected" : "away", packets, lost);
            }
            std::fflush(stdout);
        }
    }
}

int main(int argc, char** argv) try {
    std::signal(SIGINT, [](int) { interrupted.raise(); });
    velmora::Dongle dongle(argc > 1 ? argv[1] : velmora::findFirst(&interrupted));
    dongle.start();
    while (!interrupted.raised()) {
        try {
            dongle.reopen({}, &interrupted);  // returns at once unless the dongle is gone
            dongle.connect(dongle.scan(std::chrono::seconds(30), &interrupted), {}, &interrupted);
            collect(dongle);
        } catch (const velmora::Error& error) {
            std::fprintf(stderr, "%s\n", error.what());
            if (error.status() == VELMORA_BUSY) {
                collect(dongle);  // headsets are connected that an ended program left
            }
        }
    }
    velmora_drop_all(dongle.get(), VELMORA_ALLOW_UNPROVED, nullptr);  // for the next program; fails when unplugged
} catch (const velmora::Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
