#pragma once

#include <string>
#include <string_view>

#include "core/context.h"
#include "sdk/devices/ble_device.h"

namespace kxorbeta_if {

/// Lets the dongle look for headsets and collects them in the context's scan working list. Blocks until the dongle
/// reports the end (true) or its reads are spent (false). False at once, with nothing changed, while the port is
/// closed, a link thread is to run, or a scan or connection is under way. Throws std::system_error when no thread can
/// be started; `scanning` then stays set.
bool scan(Context& context);

/// Takes in one block of scan text: each valid line of a headset of this family that the list does not hold yet.
/// `block` is what one read returned; only its part before the first zero byte is text. False when it is too short to
/// hold a line; no caller asks.
bool parseScanLines(std::string_view block, ScanWorkingList& list);

/// The record of one line "ADDRESS,NUMBER NAME"; an empty record when the line is too short or its number is none.
ble_device deviceFromScanLine(std::string line);

}  // namespace kxorbeta_if
