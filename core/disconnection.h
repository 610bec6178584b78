#pragma once

#include "core/context.h"
#include "sdk/devices/ble_device.h"

namespace kxorbeta_if {

/// Queues the order to drop one headset; the rest of the group and the link thread go on. False, with nothing queued,
/// while the port is closed, a connection is under way, or no link thread is to run.
bool disconnectDevice(Context& context, const ble_device& device);

/// Ends data collection and, with headsets connected, tells the dongle to drop them all, lets queued commands go out
/// (at most about 10 seconds), and ends the link thread. When it returns, that thread has said its last word, unless it
/// is stuck (about 1 second is waited for it) or is the calling thread. Always true. The port stays open.
bool disconnectAll(Context& context);

}  // namespace kxorbeta_if
