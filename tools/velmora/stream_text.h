// Texts for the user.
#pragma once

#include <string>
#include <vector>

#include "velmora/stream_counters.h"

namespace velmora {

struct Headset {
    std::string address;
    std::string name;
    int option = 0;
};

/// A text from the air as it may be shown: no trailing blanks, nothing that a terminal would obey.
std::string printable(std::string text);

/// A table with a line of titles.
std::string headsetTable(const std::vector<Headset>& headsets);

/// State of one device in one line, without a line end.
std::string liveLine(int device, const DeviceCounters& counters, const DeviceRates& rates);

/// What was collected in that time, and what no host can know.
std::string summaryText(double seconds, const StreamCounters& counters);

}  // namespace velmora
