#pragma once

#include <vector>

#include "base/spin_lock.h"
#include "sdk/devices/ble_device.h"

namespace kxorbeta_if {

/// The headsets that the running or last scan reported, each address once, in the order of their first report. Filled
/// by the scan thread.
class ScanWorkingList {
  public:
    void clear();

    /// Appends and logs the device unless the list holds its address: the first report wins.
    void addIfNew(const ble_device& device);

    std::vector<ble_device> snapshot();

  private:
    SpinLock lock_;
    std::vector<ble_device> devices_;
};

}  // namespace kxorbeta_if
