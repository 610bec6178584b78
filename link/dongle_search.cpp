#include "link/dongle_search.h"

#include <array>
#include <string_view>

#include "base/log.h"
#include "link/port_names.h"
#include "protocol/commands.h"
#include "protocol/reports.h"

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

Port::Result openAtDongleSettings(Port& port, const std::string& path, std::uint32_t baud) {
    return port.open(path.c_str(), baud, kEightBits, kNoParity, kOneStopBit);
}

bool attempt(Port& port, const std::string& path, const DongleSearch& search) {
    bool found = false;
    if (openAtDongleSettings(port, path, search.baud) == Port::kOpened) {
        for (int probe = 0; probe < kProbesPerAttempt && !found; ++probe) {
            found = probeDongle(port, search.probeTimeoutMs) == 0;
        }
        port.close();
    }
    return found;
}

}  // namespace

int probeDongle(Port& port, std::uint32_t timeoutMs) {
    std::array<char, 32> reply{};
    port.write(protocol::kPing.data(), protocol::kPing.size());
    if (port.read(reply.data(), reply.size(), timeoutMs) <= 0) {
        return -1;
    }
    // Compared with a zero byte behind it: nothing may follow it in that read.
    const std::string_view answer(reply.data(), protocol::reply::kPong.size() + 1);
    return answer.starts_with(protocol::reply::kPong) && answer.back() == '\0' ? 0 : -1;
}

std::string findDongle(const DongleSearch& search) {
    for (int number = kFirstPort; number <= kLastPort; ++number) {
        SerialPort port(search.deviceFolder);
        std::string path = std::string(kPortPrefix) + "COM" + std::to_string(number);
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

bool openDonglePort(Port& port, const char* portName) {
    KX_LOG(verbosity::kInfo, "Connect dongle on port %s baudrate %d", portName, static_cast<int>(kDongleBaud));
    const std::string path = std::string(kPortPrefix) + portName;
    if (path.size() <= kLongestPath && openAtDongleSettings(port, path, kDongleBaud) == Port::kOpened) {
        return true;
    }
    KX_LOG(verbosity::kWarning, "Failed to open %s", path.c_str());
    return false;
}

}  // namespace kxorbeta_if
