// What the tests of the serial port share.
#pragma once

#include "link/serial_port.h"
#include "support/eventually.h"
#include "support/test_line.h"
#include "support/testing.h"

namespace kxorbeta_if {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

/// A wait that no test would live to see.
constexpr std::uint32_t kHourMs = 3600 * 1000;

inline Port::Result openPort(Port& port, const std::string& name) {
    return port.open((R"(\\.\)" + name).c_str(), 2000000, 3, 0, 0);
}

/// The bytes that a read brings, or the number of its failure.
inline std::string read(Port& port, std::uint32_t room, std::uint32_t timeoutMs = kHourMs) {
    std::string bytes(room, '\0');
    const int count = port.read(bytes.data(), room, timeoutMs);
    return count < 0 ? std::to_string(count) : bytes.substr(0, static_cast<std::size_t>(count));
}

inline std::string readAvailable(Port& port, std::uint32_t room, steady_clock::time_point deadline = Port::kNever) {
    std::string bytes(room, '\0');
    const int count = port.readAvailable(bytes.data(), room, deadline);
    return count < 0 ? std::to_string(count) : bytes.substr(0, static_cast<std::size_t>(count));
}

}  // namespace kxorbeta_if
