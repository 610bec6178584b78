#pragma once

#include <string_view>
#include <vector>

#include "core/callback_table.h"
#include "core/device_registry.h"

namespace kxorbeta_if {

/// What the dongle's reports change and announce.
struct ReportTargets {
    DeviceRegistry& registry;
    CallbackTable& callbacks;
};

/// The headsets that the text reports connected, in line order; touches neither registry nor events. A line counts when
/// "Service connected." is followed, after any spaces, by an address whose first 12 characters (fewer at the end of the
/// line) are all hexadecimal digits; the number behind the first ',' is the index. Logs each, and a malformed index.
std::vector<ble_device> parseServiceConnected(std::string_view text);

/// Link thread: merges each reported headset into the registry by address and raises the "connected" event for it.
/// Null does nothing.
void handleServiceConnected(const ReportTargets& targets, const char* text);

/// Connection thread: appends each reported headset to the registry, known or not, raises the event, and returns their
/// number. A malformed index counts as 0, silently.
int collectGroupConnections(const ReportTargets& targets, std::string_view text);

/// Link thread: the first "Client disconnected" of the text sets that headset's state to 0 and raises the
/// "disconnected" event, whether or not the registry knows it. A report without a valid address is ignored. Null does
/// nothing.
void handleClientDisconnected(const ReportTargets& targets, const char* text);

}  // namespace kxorbeta_if
