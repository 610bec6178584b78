#include "velmora/stream_text.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace velmora {

namespace {

std::string batteryText(const DeviceCounters& counters) {
    if (counters.batteryReports == 0)
        return "battery not reported";
    return "battery " + std::to_string(counters.batteryLevel) + " (second figure " +
           std::to_string(counters.batteryValue) + ")";
}

bool anyPackets(const StreamCounters& counters) {
    return std::any_of(counters.devices.begin(), counters.devices.end(),
                       [](const DeviceCounters& device) { return device.packets > 0; });
}

void addDevice(std::ostream& out, std::size_t device, double seconds, const DeviceCounters& counters) {
    out << "device " << device << ": " << counters.packets << " raw packets";
    if (seconds > 0)
        out << " (" << static_cast<double>(counters.packets) / seconds << "/s)";
    out << ", " << counters.allSamples() << " samples, " << counters.zeroPackets << " packets with only zeros, "
        << batteryText(counters) << "\n";
    if (counters.packets == 0)
        return;
    out << "  samples per channel:";
    for (std::size_t channel = 0; channel < counters.samples.size(); ++channel) {
        if (counters.samples[channel] > 0)
            out << " " << channel << ": " << counters.samples[channel];
    }
    out << "\n";
}

}  // namespace

std::string printable(std::string text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == ' '))
        text.pop_back();
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '?');
    return text;
}

std::string headsetTable(const std::vector<Headset>& headsets) {
    std::size_t width = std::string("address").size();
    for (const Headset& headset : headsets)
        width = std::max(width, headset.address.size());
    std::ostringstream out;
    out << std::left << std::setw(static_cast<int>(width)) << "address"
        << "  option  name\n";
    for (const Headset& headset : headsets) {
        out << std::left << std::setw(static_cast<int>(width)) << printable(headset.address) << "  " << std::right
            << std::setw(6) << headset.option << "  " << printable(headset.name) << "\n";
    }
    return out.str();
}

std::string liveLine(int device, const DeviceCounters& counters, const DeviceRates& rates) {
    // Short enough for 80 columns.
    std::ostringstream out;
    out << std::fixed << std::setprecision(1);
    out << "device " << device << ": " << rates.packetsPerSecond << " packets/s, ";
    // Channels that take turns differ by a packet within the window; that is not worth two numbers.
    if (rates.fastest > 1.2 * rates.slowest)
        out << rates.channels << " x " << rates.slowest << " to " << rates.fastest << " samples/s, ";
    else if (rates.channels > 0)
        out << rates.channels << " x " << (rates.slowest + rates.fastest) / 2 << " samples/s, ";
    out << "zeros " << counters.zeroPackets << " (bridged?)";
    if (counters.batteryReports > 0)
        out << ", battery " << counters.batteryLevel;
    return out.str();
}

std::string summaryText(double seconds, const StreamCounters& counters) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(1) << "collected for " << seconds << " s\n";
    for (std::size_t device = 0; device < counters.devices.size(); ++device) {
        if (counters.devices[device].seen())
            addDevice(out, device, seconds, counters.devices[device]);
    }
    out << "processed packets: " << counters.postPackets << " (from which headset is not told)\n";
    if (counters.misfits > 0)
        out << "calls that fit no device or channel: " << counters.misfits << "\n";
    if (anyPackets(counters))
        out << "Losses cannot be counted from here: one or two lost packets in a row are replaced by zeros, though an "
               "idle input gives zeros too; longer losses do not show at all. kxsdk.log names each (\"Lost data "
               "chan\"). Headsets that send packets of several channels begin with one packet of zeros.\n";
    return out.str();
}

}  // namespace velmora
