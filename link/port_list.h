#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kxorbeta_if {

struct UsbId {
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;

    bool operator==(const UsbId&) const = default;
};

/// A process that has a port open.
struct PortHolder {
    int process = 0;
    std::string program;  ///< its name, as far as it tells it

    bool operator==(const PortHolder&) const = default;
};

/// A serial port of this machine. Texts are empty where the system does not tell.
struct PortInfo {
    enum class Access {
        kUnknown,  ///< Windows tells only whoever opens the port
        kAllowed,
        kDenied,
    };

    std::string name;         ///< as people say it: ttyUSB0, COM5
    std::string path;         ///< as Port::open() takes it: /dev/ttyUSB0, \\.\COM5
    std::string description;  ///< maker and product
    std::optional<UsbId> usb;
    std::string serialNumber;  ///< of the USB device
    std::string driver;
    std::optional<int> latencyTimerMs;  ///< how long the driver collects bytes before it passes them on

    Access access = Access::kUnknown;  ///< whether this user may open it; a port that is held may still be refused
    std::string accessGroup;           ///< when denied: the group whose members may, if there is one

    std::vector<PortHolder> holders;  ///< those that this user may see, this process included
    bool holdersComplete = false;     ///< nobody else can have it open
};

/// Where Linux keeps what there is to know; parameters for tests.
struct PortFolders {
    std::string devices = "/dev";
    std::string terminals = "/sys/class/tty";
    std::string processes = "/proc";
};

/// All serial ports, ordered by name and number. What changes meanwhile is left out, as is whatever cannot be read. On
/// Linux these are the terminals with a device behind them, and what else is named like one in the device folder (a
/// link to a virtual dongle, say).
std::vector<PortInfo> listPorts(const PortFolders& folders = {});

/// True when `left` comes before `right`: letters as they are, numbers by their value.
bool portNameLess(const std::string& left, const std::string& right);

}  // namespace kxorbeta_if
