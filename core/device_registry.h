#pragma once

#include <string_view>
#include <vector>

#include "base/spin_lock.h"
#include "sdk/devices/ble_device.h"

namespace kxorbeta_if {

/// The headsets that the dongle reports as connected, in the order of their first report. Fed from the dongle's texts;
/// no exported function reads it. A headset that leaves stays in it with state 0. It takes some thousands of records;
/// more are announced, but not kept.
class DeviceRegistry {
  public:
    /// Updates the first record with the device's address (state 1, the device's index), or sets the device's state to
    /// 1 and appends a copy. Logs which of the two, under the lock. Always true.
    bool addOrUpdateDevice(ble_device& device);

    /// Sets the state of the first record with that address and logs it; false, silently, when there is none.
    /// Takes no lock: it runs on the link thread like every other writer while that thread lives.
    bool setDeviceState(std::string_view address, int state);

    /// Takes in the dongle's list reply ("AT+LIST=..." anywhere in the text): every record is set to state 0 and index
    /// 0, then the listed headsets are added or updated. Null does nothing.
    void handleDeviceList(const char* text);

    /// Appends without looking for a record of the same address.
    void append(const ble_device& device);

    void clear();
    std::vector<ble_device> snapshot();

  private:
    void add(const ble_device& device);
    void resetAll();

    SpinLock lock_;
    std::vector<ble_device> devices_;
};

/// The records of a list reply, in order: entries "index,address" separated by ';'. Entries without a comma or with an
/// address that is not hexadecimal are left out; an index that is no 32-bit number counts as 0. State 1.
std::vector<ble_device> parseDeviceList(std::string_view list);

}  // namespace kxorbeta_if
