#pragma once

#include <cstddef>

#include "sdk/VelmoraSDK.h"
#include "sdk/devices/ble_device.h"

// The record's layout is part of the binary interface with hosts.
static_assert(offsetof(DeviceInfo, address) == 0);
static_assert(offsetof(DeviceInfo, name) == 32);
static_assert(offsetof(DeviceInfo, option) == 96);
static_assert(offsetof(DeviceInfo, index) == 100);
static_assert(offsetof(DeviceInfo, state) == 104);
static_assert(sizeof(DeviceInfo) == 108);

/// Fills the host's record. A null `out` does nothing. An address of 32 characters or more, or a name of 64 or more,
/// ends the process: a cut address would be another headset's.
VELMORA_API void convertToDeviceInfo(kxorbeta_if::ble_device& device, DeviceInfo* out);
