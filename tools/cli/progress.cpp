#include "cli/progress.h"

#include "cli/text.h"

namespace velmora::cli {

std::string progressLine(const record::Progress& progress, double seconds, std::uint64_t freeBytes, std::size_t width) {
    std::uint64_t packets = 0;
    std::uint64_t lost = 0;
    int battery = -1;
    std::size_t connected = 0;
    for (const record::HeadsetProgress& headset : progress.headsets) {
        packets += headset.packets;
        lost += headset.lost;
        connected += headset.connected ? 1 : 0;
        if (headset.battery >= 0 && (battery < 0 || headset.battery < battery)) {
            battery = headset.battery;
        }
    }
    const std::size_t all = progress.headsets.size();
    const std::string on = (connected < all ? std::to_string(connected) + "/" : "") + std::to_string(all);
    enum class Form { kWhole, kShort, kShortest };
    const auto lineOf = [&](Form form) {
        const bool whole = form == Form::kWhole;
        const bool brief = form == Form::kShortest;
        std::string line = timeText(seconds) + "  " + on;
        line += whole ? (all == 1 ? " headset  " : " headsets  ") : brief ? "  " : " on  ";
        line += (brief ? countText(packets) : std::to_string(packets)) + (whole ? " packets" : " pkts");
        line += "  lost " + lossText(packets, lost, brief) + "  " + sizeText(progress.bytes);
        if (battery >= 0) {
            line += "  batt " + std::to_string(battery);
        }
        if (freeBytes > 0) {
            line += "  " + sizeText(freeBytes) + " free";
        }
        return line;
    };
    for (const Form form : {Form::kWhole, Form::kShort}) {
        if (std::string line = lineOf(form); line.size() < width) {
            return line;
        }
    }
    return lineOf(Form::kShortest);
}

}  // namespace velmora::cli
