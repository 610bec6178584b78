#pragma once

#include <cstdint>
#include <string>

#include "link/serial_port.h"

namespace kxorbeta_if {

inline constexpr std::uint32_t kDongleBaud = 2000000;
inline constexpr std::uint32_t kProbeTimeoutMs = 500;

struct DongleSearch {
    std::uint32_t baud = kDongleBaud;
    std::uint32_t probeTimeoutMs = kProbeTimeoutMs;
    std::string deviceFolder = SerialPort::kDeviceFolder;  ///< as for SerialPort
};

/// Asks the device on an open port whether it is a dongle: 0 when it answers the ping with exactly "AT+OK", else -1.
int probeDongle(Port& port, std::uint32_t timeoutMs);

/// Tries the ports COM1 to COM98 in this order and returns the device path of the first on which a dongle answers, or
/// an empty text. Five attempts for each port, two pings an attempt; no port stays open. Logs the outcome.
std::string findDongle(const DongleSearch& search);

/// Opens `port` at the dongle's settings: `portName` is a port's name without prefix. True when it is ready. Logs a
/// failure; after one that came later than the opening itself the port stays open.
bool openDonglePort(Port& port, const char* portName);

}  // namespace kxorbeta_if
