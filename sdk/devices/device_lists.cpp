#include "sdk/devices/device_lists.h"

#include "sdk/devices/device_info.h"

namespace kxorbeta_if {

void DeviceLists::clear() {
    const std::lock_guard guard(deviceListMutex_);
    List().swap(scanList_);
    List().swap(connectedList_);
}

int DeviceLists::count(const List& list) {
    const std::lock_guard guard(deviceListMutex_);
    return static_cast<int>(list.size());
}

bool DeviceLists::get(List& list, int index, DeviceInfo* out) {
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
