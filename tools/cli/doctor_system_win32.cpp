#include "cli/doctor_system.h"
#include "link/port_names.h"

namespace velmora::cli {

std::vector<std::string> runningPrograms() {
    return {};  // no program is known to take serial ports there by itself
}

std::string systemName(const std::string& port) {
    return std::string(kxorbeta_if::kPortPrefix) +
           (port.starts_with(kxorbeta_if::kPortPrefix) ? port.substr(kxorbeta_if::kPortPrefix.size()) : port);
}

std::string lookForDevice() {
    return "plug the dongle in; see whether Device Manager has it under Ports (COM & LPT), or install its driver";
}

}  // namespace velmora::cli
