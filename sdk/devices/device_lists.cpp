#include "sdk/devices/device_lists.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "sdk/devices/device_info.h"

namespace kxorbeta_if {

bool DeviceLists::scanDevices(const Scan& scan, const ScanResult& result) {
    const std::lock_guard guard(deviceListMutex_);
    if (!scan()) {
        return false;
    }
    scanList_ = result();
    return true;
}

bool DeviceLists::connectDevice(const char* address, int option, const Connect& connect) {
    if (address == nullptr) {
        return false;
    }
    const ble_device device(address, option, 0);
    if (!connect({device})) {
        return false;
    }
    const std::lock_guard guard(deviceListMutex_);
    connectedList_.push_back(device);
    return true;
}

bool DeviceLists::disconnectDevice(const char* address, const Disconnect& disconnect) {
    if (address == nullptr) {
        return false;
    }
    const std::lock_guard guard(deviceListMutex_);
    const auto record = std::find_if(connectedList_.begin(), connectedList_.end(),
                                     [&](const ble_device& device) { return device.hasAddress(address); });
    if (record == connectedList_.end()) {
        return false;
    }
    disconnect(*record);
    connectedList_.erase(record);
    return true;
}

void DeviceLists::clear() {
    const std::lock_guard guard(deviceListMutex_);
    List().swap(scanList_);
    List().swap(connectedList_);
}

int DeviceLists::count(const List& list) {
    const std::lock_guard guard(deviceListMutex_);
    return static_cast<int>(list.size());
}

bool DeviceLists::get(const List& list, int index, DeviceInfo* out) {
    if (out == nullptr || index < 0) {
        return false;
    }
    const std::lock_guard guard(deviceListMutex_);
    if (index >= static_cast<int>(list.size())) {
        return false;
    }
    convertToDeviceInfo(list[static_cast<std::size_t>(index)], out);
    return true;
}

}  // namespace kxorbeta_if
