#include "core/device_registry.h"

#include <algorithm>
#include <string>

#include "base/log.h"
#include "protocol/reports.h"

namespace kxorbeta_if {
namespace {

constexpr std::size_t kLongestList = 255;

// Indices go up to 15; a line that reports thousands makes addresses up, and must cost neither memory nor time
// without end.
constexpr std::size_t kMostDevices = 4096;

auto findAddress(std::vector<ble_device>& devices, std::string_view address) {
    return std::find_if(devices.begin(), devices.end(),
                        [&](const ble_device& device) { return device.hasAddress(address); });
}

}  // namespace

bool DeviceRegistry::addOrUpdateDevice(ble_device& device) {
    const SpinGuard guard(lock_);
    const auto record = findAddress(devices_, device.address());
    if (record != devices_.end()) {
        record->setState(1);
        record->setIndex(device.index());
        KX_LOG(verbosity::kInfo, "Update device %s, index=%d", device.address().c_str(), device.index());
    } else {
        device.setState(1);
        KX_LOG(verbosity::kInfo, "Add device %s, index=%d", device.address().c_str(), device.index());
        add(device);
    }
    return true;
}

bool DeviceRegistry::setDeviceState(std::string_view address, int state) {
    const auto record = findAddress(devices_, address);
    if (record == devices_.end()) {
        return false;
    }
    record->setState(state);
    KX_LOG(verbosity::kInfo, "Update device %s state to %d", std::string(address).c_str(), state);
    return true;
}

void DeviceRegistry::handleDeviceList(const char* text) {
    if (text == nullptr) {
        return;
    }
    const auto reply = protocol::readListReply(text);
    if (!reply) {
        return;
    }
    if (reply->none) {
        KX_LOG(verbosity::kInfo, "No device connected");
        resetAll();
        return;
    }
    std::vector<ble_device> reported = parseDeviceList(reply->entries.substr(0, kLongestList));
    resetAll();
    for (ble_device& device : reported) {
        addOrUpdateDevice(device);
    }
}

void DeviceRegistry::append(const ble_device& device) {
    const SpinGuard guard(lock_);
    add(device);
}

void DeviceRegistry::add(const ble_device& device) {
    if (devices_.size() < kMostDevices) {
        devices_.push_back(device);
    }
}

void DeviceRegistry::clear() {
    std::vector<ble_device> dropped;
    const SpinGuard guard(lock_);
    devices_.swap(dropped);
}

std::vector<ble_device> DeviceRegistry::snapshot() {
    const SpinGuard guard(lock_);
    return devices_;
}

void DeviceRegistry::resetAll() {
    const SpinGuard guard(lock_);
    for (ble_device& device : devices_) {
        device.setState(0);
        device.setIndex(0);
    }
}

std::vector<ble_device> parseDeviceList(std::string_view list) {
    std::vector<ble_device> devices;
    protocol::forEachListEntry(list, [&](std::string_view address, std::int32_t index) {
        devices.emplace_back(address, 0, index).setState(1);
    });
    return devices;
}

}  // namespace kxorbeta_if
