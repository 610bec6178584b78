#include "record/simulated_headset.h"

#include <algorithm>
#include <cmath>

namespace test {

std::int16_t SimulatedHeadset::value(int channel, std::int64_t sample) {
    const auto mixed = static_cast<std::uint64_t>(sample * 16 + channel) * 0x9E3779B97F4A7C15U;
    return static_cast<std::int16_t>(static_cast<int>(mixed >> 49U) - 16384);
}

std::vector<velmora_record> SimulatedHeadset::records() const {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> share(0, 1);
    std::vector<velmora_record> records;
    std::vector<std::uint32_t> gone(static_cast<std::size_t>(channels));
    constexpr int kPacketSamples = 112;
    const int slots = multi ? 1 : channels;
    const int count = multi ? kPacketSamples / channels : kPacketSamples;
    for (std::int64_t sample = 0; static_cast<double>(sample + count) <= rate * seconds; sample += count) {
        const auto ready = start + std::llround(static_cast<double>(sample + count) / rate * 1e9);
        for (int channel = 0; channel < slots; ++channel) {
            auto& before = gone[static_cast<std::size_t>(channel)];
            const double late = jitter * share(random);
            if (share(random) < lossShare || lost(channel, sample)) {
                ++before;
                continue;
            }
            velmora_record record{};
            record.kind = VELMORA_RAW;
            record.flags = static_cast<std::uint16_t>(multi ? VELMORA_FLAG_MULTI : 0);
            record.headset = static_cast<std::int16_t>(number);
            record.time = ready + std::llround(late * 1e9);
            record.sample = sample;
            record.lost = before;
            record.channel = static_cast<std::uint16_t>(channel);
            record.channels = static_cast<std::uint16_t>(multi ? channels : 1);
            record.count = static_cast<std::uint16_t>(count);
            for (int i = 0; i < count; ++i) {
                for (int c = 0; c < record.channels; ++c)
                    record.samples[i * record.channels + c] = value(channel + c, sample + i);
            }
            records.push_back(record);
            before = 0;
        }
    }
    std::stable_sort(records.begin(), records.end(), [](const auto& a, const auto& b) { return a.time < b.time; });
    return records;
}

std::string difference(const EdfFile& file, const std::vector<velmora_record>& records, double rate,
                       std::int64_t origin, std::int64_t until) {
    for (std::size_t s = 0; s < file.signals.size(); ++s) {
        const auto& signal = file.signals[s];
        enum : std::uint8_t { kNothing, kMust, kMay };
        std::vector<std::uint8_t> arrived(signal.samples.size(), kNothing);
        const std::string name = "channel " + signal.label;
        const int channel = std::stoi(signal.label.substr(2));
        for (const velmora_record& record : records) {
            if (record.kind != VELMORA_RAW || channel < record.channel || channel >= record.channel + record.channels)
                continue;
            for (std::int64_t i = record.sample; i < record.sample + record.count; ++i) {
                const std::int64_t at = i - origin;
                if (at >= 0 && at < static_cast<std::int64_t>(arrived.size()))
                    arrived[static_cast<std::size_t>(at)] = record.time <= until ? kMust : kMay;
                else if (record.time <= until)
                    return name + " lacks sample " + std::to_string(i);
            }
        }
        const std::vector<int> bad = file.marks(signal, rate);
        if (bad.back() > 0 && until == INT64_MAX)
            return name + " is marked outside of the file";
        for (std::size_t i = 0; i < signal.samples.size(); ++i) {
            const bool there =
                signal.samples[i] == SimulatedHeadset::value(channel, origin + static_cast<std::int64_t>(i));
            const std::string where = name + ", sample " + std::to_string(i);
            if (arrived[i] == kMust && !there)
                return where + " is not what arrived";
            if (bad[i] > 1 && until == INT64_MAX)
                return where + " is marked twice";
            if (bad[i] > 0 && signal.samples[i] != -32768 && arrived[i] != kMay)
                return where + " is there but marked";
            if (bad[i] == 0 && (arrived[i] == kNothing || !there))
                return where + " is missing but not marked";
        }
    }
    return "";
}

velmora_record eventRecord(int code, int headset, std::int64_t time) {
    velmora_record record{};
    record.kind = VELMORA_EVENT;
    record.code = static_cast<std::uint8_t>(code);
    record.headset = static_cast<std::int16_t>(headset);
    record.time = time;
    return record;
}

}  // namespace test
