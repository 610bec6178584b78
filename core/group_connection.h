#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/context.h"
#include "sdk/devices/ble_device.h"

namespace kxorbeta_if {

/// Has the dongle connect a list of headsets at once. True when it reported at least one connected; the link thread
/// then runs. Blocks until the dongle reports the end of the attempt, at most `timeoutSeconds` of a silent line (0 and
/// more than 600 mean 100). False at once, with nothing changed, while the port is closed, headsets are connected, or a
/// scan or connection is under way; false after up to a second while the last link thread lives. Throws
/// std::system_error when a thread cannot be started; `connecting` stays set when it was the connection's own.
bool connectGroup(Context& context, const std::vector<ble_device>& devices, std::uint32_t timeoutSeconds);

/// The command's text: addresses with their options, separated by ';'.
std::string groupConnectCommand(const std::vector<ble_device>& devices);

/// How many reads an attempt may take.
std::uint32_t connectionReads(const Timing& timing, std::uint32_t timeoutSeconds);

}  // namespace kxorbeta_if
