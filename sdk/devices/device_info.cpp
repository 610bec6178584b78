#include "sdk/devices/device_info.h"

#include "sdk/devices/bounded_copy.h"

void convertToDeviceInfo(kxorbeta_if::ble_device& device, DeviceInfo* out) {
    if (out == nullptr) {
        return;
    }
    kxorbeta_if::copyBounded(out->name, sizeof out->name, device.name().c_str());
    kxorbeta_if::copyBounded(out->address, sizeof out->address, device.address().c_str());
    out->option = device.option();
    out->index = device.index();
    out->state = device.state();
}
