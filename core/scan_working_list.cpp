#include "core/scan_working_list.h"

#include <algorithm>
#include <string>

#include "base/log.h"

namespace kxorbeta_if {

void ScanWorkingList::clear() {
    std::vector<ble_device> dropped;
    const SpinGuard guard(lock_);
    devices_.swap(dropped);
}

void ScanWorkingList::addIfNew(const ble_device& device) {
    const std::string address = device.address();
    const SpinGuard guard(lock_);
    if (std::any_of(devices_.begin(), devices_.end(),
                    [&](const ble_device& known) { return known.hasAddress(address); })) {
        return;
    }
    KX_LOG(verbosity::kInfo, "Found %s, %s", address.c_str(), device.name().c_str());
    devices_.push_back(device);
}

std::vector<ble_device> ScanWorkingList::snapshot() {
    const SpinGuard guard(lock_);
    return devices_;
}

}  // namespace kxorbeta_if
