#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

#include "link/port_list.h"

namespace kxorbeta_if {
namespace {

namespace fs = std::filesystem;

/// The names in a folder; of one that cannot be read, none.
std::vector<std::string> namesIn(const fs::path& folder, std::error_code& error) {
    std::vector<std::string> names;
    for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        names.push_back(entry->path().filename());
    }
    return names;
}

std::vector<std::string> namesIn(const fs::path& folder) {
    std::error_code ignored;
    return namesIn(folder, ignored);
}

/// The first line of a file that the kernel fills; empty when there is none.
std::string attribute(const fs::path& file) {
    std::string text;
    std::ifstream stream(file);
    std::getline(stream, text);
    return text;
}

template <typename Number>
std::optional<Number> number(std::string_view text, int base) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc{} && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

bool isThere(const fs::path& file) {
    std::error_code ignored;
    return fs::exists(file, ignored);
}

/// Where a path leads in the end; empty when it leads nowhere.
fs::path resolved(const fs::path& path) {
    std::error_code error;
    fs::path target = fs::canonical(path, error);
    return error ? fs::path() : target;
}

bool namedLikeASerialPort(std::string_view name) {
    for (const std::string_view kind : {"ttyUSB", "ttyACM", "ttyS"}) {
        if (name.starts_with(kind)) {
            const std::string_view rest = name.substr(kind.size());
            return !rest.empty() && std::all_of(rest.begin(), rest.end(), [](unsigned char c) { return isdigit(c); });
        }
    }
    return false;
}

/// A terminal of the kernel's list that is a serial port: not a console, and not one of the places for ports that the
/// machine might have had, which are of the type 0, "unknown".
bool isSerialPort(const fs::path& terminal) {
    return isThere(terminal / "device") && attribute(terminal / "type") != "0";
}

std::set<std::string, decltype(&portNameLess)> portNames(const PortFolders& folders) {
    std::set<std::string, decltype(&portNameLess)> names(portNameLess);
    for (std::string& name : namesIn(folders.terminals)) {
        if (isSerialPort(fs::path(folders.terminals) / name)) {
            names.insert(std::move(name));
        }
    }
    for (std::string& name : namesIn(folders.devices)) {
        if (namedLikeASerialPort(name) && !isThere(fs::path(folders.terminals) / name)) {
            names.insert(std::move(name));
        }
    }
    return names;
}

/// The driver of the device, or of the nearest above it: recent kernels put a layer of their own between a terminal and
/// what drives it.
std::string driverOf(fs::path device) {
    for (; device.has_relative_path(); device = device.parent_path()) {
        const fs::path driver = resolved(device / "driver");
        if (!driver.empty() && driver.parent_path().parent_path().filename() != "serial-base") {
            return driver.filename();
        }
    }
    return {};
}

void describeUsb(fs::path device, PortInfo& port) {
    while (device.has_relative_path() && !isThere(device / "idVendor")) {
        device = device.parent_path();
    }
    const auto vendor = number<std::uint16_t>(attribute(device / "idVendor"), 16);
    const auto product = number<std::uint16_t>(attribute(device / "idProduct"), 16);
    if (!vendor || !product) {
        return;
    }
    port.usb = UsbId{*vendor, *product};
    port.serialNumber = attribute(device / "serial");
    port.description = attribute(device / "manufacturer");
    const std::string productName = attribute(device / "product");
    if (!port.description.empty() && !productName.empty()) {
        port.description += ' ';
    }
    port.description += productName;
}

std::string groupName(gid_t group) {
    std::array<char, 4096> memory{};
    struct group entry {};
    struct group* found = nullptr;
    const bool known = getgrgid_r(group, &entry, memory.data(), memory.size(), &found) == 0 && found != nullptr;
    return known ? found->gr_name : std::to_string(group);
}

void describeAccess(PortInfo& port) {
    if (::faccessat(AT_FDCWD, port.path.c_str(), R_OK | W_OK, AT_EACCESS) == 0) {
        port.access = PortInfo::Access::kAllowed;
        return;
    }
    port.access = PortInfo::Access::kDenied;
    struct stat file {};
    constexpr mode_t both = S_IRGRP | S_IWGRP;
    if (::stat(port.path.c_str(), &file) == 0 && (file.st_mode & both) == both) {
        port.accessGroup = groupName(file.st_gid);
    }
}

/// Which process has which of `files` open.
struct Holders {
    std::map<fs::path, std::vector<PortHolder>> byFile;
    bool complete = true;
};

Holders findHolders(const fs::path& processes, const std::set<fs::path>& files) {
    Holders found;
    for (const std::string& name : namesIn(processes)) {
        const auto process = number<int>(name, 10);
        if (!process) {
            continue;
        }
        const fs::path descriptors = processes / name / "fd";
        std::error_code error;
        std::set<fs::path> open;
        for (const std::string& descriptor : namesIn(descriptors, error)) {
            std::error_code closed;
            fs::path file = fs::read_symlink(descriptors / descriptor, closed);
            if (!closed && files.count(file) != 0) {
                open.insert(std::move(file));
            }
        }
        if (error == std::errc::permission_denied) {
            found.complete = false;
        }
        for (const fs::path& file : open) {
            found.byFile[file].push_back({*process, attribute(processes / name / "comm")});
        }
    }
    return found;
}

}  // namespace

std::vector<PortInfo> listPorts(const PortFolders& folders) {
    std::vector<PortInfo> ports;
    std::vector<fs::path> files;
    for (const std::string& name : portNames(folders)) {
        PortInfo port;
        port.name = name;
        port.path = fs::path(folders.devices) / name;
        fs::path file = resolved(port.path);
        if (file.empty()) {
            continue;
        }
        const fs::path device = resolved(fs::path(folders.terminals) / name / "device");
        port.driver = driverOf(device);
        port.latencyTimerMs = number<int>(attribute(device / "latency_timer"), 10);
        describeUsb(device, port);
        describeAccess(port);
        ports.push_back(std::move(port));
        files.push_back(std::move(file));
    }
    const Holders holders = findHolders(folders.processes, {files.begin(), files.end()});
    for (std::size_t i = 0; i < ports.size(); ++i) {
        ports[i].holdersComplete = holders.complete;
        if (const auto known = holders.byFile.find(files[i]); known != holders.byFile.end()) {
            ports[i].holders = known->second;
        }
    }
    return ports;
}

}  // namespace kxorbeta_if
