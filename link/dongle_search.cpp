#include "link/dongle_search.h"

#include <array>
#include <cstring>
#include <string_view>

#include "core/log.h"
#include "link/port_names.h"

namespace kxorbeta_if {
namespace {

constexpr int kFirstPort = 1;
constexpr int kAttempts = 5;
constexpr int kProbesPerAttempt = 2;
constexpr std::size_t kLongestPath = 63;

// 8 data bits, no parity, one stop bit, as indexes of SerialPort::open.
constexpr int kEightBits = 3;
constexpr int kNoParity = 0;
constexpr int kOneStopBit = 0;

SerialPort::Result openAtDongleSettings(SerialPort& port, const std::string& path, std::uint32_t baud) {
    return port.open(path.c_str(), baud, kEightBits, kNoParity, kOneStopBit);
}

bool attempt(SerialPort& port, const std::string& path, const DongleSearch& search) {
    if (port.isOpen()) {
        port.close();  // what a failed attempt left: it would lock us out ourselves
    }
    bool found = false;
    if (openAtDongleSettings(port, path, search.baud) == SerialPort::kOpened) {
        for (int probe = 0; probe < kProbesPerAttempt && !found; ++probe) {
            found = probeDongle(port, search.probeTimeoutMs) == 0;
        }
        port.close();
    }
    return found;
}

}  // namespace

int probeDongle(SerialPort& port, std::uint32_t timeoutMs) {
    constexpr std::string_view ping = "AT+PING";
    constexpr char answer[] = "AT+OK";  // compared with its zero byte: nothing may follow it in that read
    std::array<char, 32> reply{};
    port.write(ping.data(), ping.size());
    if (port.read(reply.data(), reply.size(), timeoutMs) <= 0) {
        return -1;
    }
    return std::memcmp(reply.data(), answer, sizeof answer) == 0 ? 0 : -1;
}

std::string findDongle(const DongleSearch& search) {
    for (int number = kFirstPort; number <= kLastPort; ++number) {
        SerialPort port(search.deviceFolder);
        const std::string path = std::string(kPortPrefix) + "COM" + std::to_string(number);
        for (int tried = 0; tried < kAttempts; ++tried) {
            if (attempt(port, path, search)) {
                KX_LOG(verbosity::kInfo, "Found TZDongle on %s.", path.c_str());
                return path;
            }
        }
    }
    KX_LOG(verbosity::kWarning, "No any TZDongle found.");
    return {};
}

bool openDonglePort(SerialPort& port, const char* portName) {
    KX_LOG(verbosity::kInfo, "Connect dongle on port %s baudrate %d", portName, static_cast<int>(kDongleBaud));
    const std::string path = std::string(kPortPrefix) + portName;
    if (path.size() <= kLongestPath && openAtDongleSettings(port, path, kDongleBaud) == SerialPort::kOpened) {
        return true;
    }
    KX_LOG(verbosity::kWarning, "Failed to open %s", path.c_str());
    return false;
}

}  // namespace kxorbeta_if
