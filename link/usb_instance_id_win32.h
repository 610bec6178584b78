#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "link/port_list.h"

namespace kxorbeta_if {

struct UsbInstance {
    UsbId id;
    std::string serialNumber;  ///< empty where Windows made one up, and for one function of a device of several
};

/// What Windows' name for a USB device says of it: USB\VID_1A86&PID_55D3\5A1B012345, or with a driver of its own
/// FTDIBUS\VID_0403+PID_6001+A50285BIA\0000. Nothing for other devices.
std::optional<UsbInstance> parseUsbInstanceId(std::string_view id);

}  // namespace kxorbeta_if
