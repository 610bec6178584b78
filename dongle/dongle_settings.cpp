#include "dongle/dongle_settings.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <set>

namespace dongle {

HeadsetSettings defaultHeadset(int number) {
    std::array<char, 8> digits{};
    std::snprintf(digits.data(), digits.size(), "%02d", number);
    HeadsetSettings headset;
    headset.address = std::string("A1B2C3D4E5") + digits.data();
    headset.name = std::string("XAI-") + digits.data();
    headset.index = number % 16;
    return headset;
}

Settings defaultSettings(int count) {
    Settings settings;
    for (int number = 1; number <= count; ++number) {
        settings.headsets.push_back(defaultHeadset(number));
    }
    return settings;
}

namespace {

std::optional<std::string> problemWith(const HeadsetSettings& headset) {
    const std::string who = "headset " + headset.address + ": ";
    const auto isHex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    if (headset.address.size() != 12 || !std::all_of(headset.address.begin(), headset.address.end(), isHex)) {
        return who + "the address must be 12 hexadecimal characters";
    }
    if (headset.index < 0 || headset.index > 15) {
        return who + "the index must be 0 to 15";
    }
    if (headset.rejoinIndex && (*headset.rejoinIndex < 0 || *headset.rejoinIndex > 15)) {
        return who + "the index after rejoining must be 0 to 15";
    }
    if (headset.rejoinIndex == headset.index) {
        return who + "the index after rejoining must be another one";
    }
    const int most = headset.packing == Packing::Multi ? 15 : 16;
    if (headset.channels < 1 || headset.channels > most) {
        return who + "channels must be 1 to " + std::to_string(most);
    }
    if (headset.sampleRate < 0 || headset.sampleRate > 32'000) {
        return who + "the sample rate must be 0 to 32000";
    }
    if (headset.batteryExtra > 63) {
        return who + "the second battery value must be 0 to 63";
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> problemWith(const Settings& settings) {
    if (settings.headsets.size() > 16) {
        return "there can be at most 16 headsets";
    }
    std::set<std::string> addresses;
    std::set<int> indices;
    for (const HeadsetSettings& headset : settings.headsets) {
        if (auto problem = problemWith(headset)) {
            return problem;
        }
        if (!addresses.insert(headset.address).second) {
            return "two headsets have the address " + headset.address;
        }
        for (const auto& index : {std::optional(headset.index), headset.rejoinIndex}) {
            if (index && !indices.insert(*index).second) {
                return "two headsets have the index " + std::to_string(*index);
            }
        }
    }
    // The longest frame is a raw one with its header; a smaller burst could never carry it whole.
    if (settings.line.largestBurst < 256) {
        return "the largest burst must be at least 256 bytes";
    }
    if (settings.line.burstInterval < 1ms) {
        return "the burst interval must be at least 1 ms";
    }
    for (const double p : {settings.faults.lose, settings.faults.repeat, settings.faults.corrupt, settings.faults.split,
                           settings.faults.stray}) {
        if (!(p >= 0.0 && p <= 1.0)) {
            return "a probability must be 0 to 1";
        }
    }
    const FaultSettings& faults = settings.faults;
    if (faults.replugEvery > Time{0} && (faults.replugAway <= Time{0} || faults.replugAway >= faults.replugEvery)) {
        return "the time unplugged must be above 0 and shorter than the time between two unpluggings";
    }
    if (settings.faults.stray > 0 && settings.faults.strayMost == 0) {
        return "stray bytes need a size of at least 1";
    }
    return std::nullopt;
}

}  // namespace dongle
