#include "link/port_names.h"

#include <charconv>

namespace kxorbeta_if {
namespace {

/// The number behind "COM", 0 when the name is not of that form.
int comNumber(std::string_view name) {
    if (!name.starts_with("COM") || name.size() < 4 || name[3] < '1' || name[3] > '9') {
        return 0;
    }
    int number = 0;
    const auto [end, error] = std::from_chars(name.data() + 3, name.data() + name.size(), number);
    return error == std::errc{} && end == name.data() + name.size() ? number : 0;
}

}  // namespace

std::string deviceFile(std::string_view portName, std::string_view deviceFolder) {
    while (portName.starts_with(kPortPrefix)) {
        portName.remove_prefix(kPortPrefix.size());
    }
    if (portName.starts_with('/')) {
        return std::string(portName);
    }
    std::string path(deviceFolder);
    path += '/';
    // USB adapters come first: the search tries the numbers in order.
    const int number = comNumber(portName);
    if (number >= 1 && number <= 32) {
        path += "ttyUSB" + std::to_string(number - 1);
    } else if (number >= 33 && number <= 64) {
        path += "ttyACM" + std::to_string(number - 33);
    } else if (number >= 65 && number <= kLastPort) {
        path += "ttyS" + std::to_string(number - 65);
    } else {
        path += portName;
    }
    return path;
}

}  // namespace kxorbeta_if
