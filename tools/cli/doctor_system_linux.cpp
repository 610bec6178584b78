#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

#include "cli/doctor_system.h"
#include "link/port_names.h"

namespace velmora::cli {

std::vector<std::string> runningPrograms() {
    std::vector<std::string> programs;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        std::string program;
        if (std::all_of(name.begin(), name.end(), [](unsigned char c) { return std::isdigit(c) != 0; }) &&
            std::getline(std::ifstream(entry->path() / "comm"), program)) {
            programs.push_back(program);
        }
    }
    return programs;
}

std::string systemName(const std::string& port) {
    return kxorbeta_if::deviceFile(port, "/dev");
}

std::string lookForDevice() {
    return "plug the dongle in; see whether the system knows it: lsusb; sudo dmesg | tail";
}

}  // namespace velmora::cli
