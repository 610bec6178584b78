#pragma once

#include <string>
#include <string_view>

namespace kxorbeta_if {

/// The form in which ports are named everywhere: \\.\COM5. Hosts and logs see it on every platform.
inline constexpr std::string_view kPortPrefix = R"(\\.\)";

inline constexpr int kLastPort = 98;  ///< the highest port number that a search tries

/// The device file that a port name means on a POSIX system.
///   COM1 to COM32   ttyUSB0 to ttyUSB31 in `deviceFolder`
///   COM33 to COM64  ttyACM0 to ttyACM31
///   COM65 to COM98  ttyS0 to ttyS33
///   /some/path      that path
///   NAME            NAME in `deviceFolder`
/// The prefix may be missing or repeated: a host may pass a search result where a plain name is asked for.
std::string deviceFile(std::string_view portName, std::string_view deviceFolder);

}  // namespace kxorbeta_if
