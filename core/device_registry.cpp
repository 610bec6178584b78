#include "core/device_registry.h"

#include <algorithm>
#include <string>

#include "core/log.h"
#include "core/reply_text.h"
#include "core/text.h"

namespace kxorbeta_if {
namespace {

constexpr std::size_t kLongestList = 255;

// A dongle has some 16 headsets; one that reports thousands makes addresses up, and must cost neither memory nor time
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
    const std::string_view all(text);
    const std::size_t marker = all.find(reply::kListPrefix);
    if (marker == std::string_view::npos) {
        return;
    }
    std::string_view list = all.substr(marker + reply::kListPrefix.size());
    if (list.starts_with("none")) {
        KX_LOG(verbosity::kInfo, "No device connected");
        resetAll();
        return;
    }
    list = list.substr(0, list.find('\n')).substr(0, kLongestList);
    std::vector<ble_device> reported = parseDeviceList(list);
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
    forEachPiece(list, ';', [&](std::string_view entry) {
        const std::size_t comma = entry.find(',');
        if (comma == std::string_view::npos) {
            return;
        }
        const std::string_view address = entry.substr(comma + 1);
        if (!isHexText(address)) {
            return;
        }
        ble_device& device = devices.emplace_back(address, 0, leadingNumber(entry.substr(0, comma)).value_or(0));
        device.setState(1);
    });
    return devices;
}

}  // namespace kxorbeta_if
