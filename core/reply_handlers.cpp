#include "core/reply_handlers.h"

#include <algorithm>
#include <array>
#include <string>

#include "base/log.h"
#include "base/text.h"
#include "protocol/reports.h"

namespace kxorbeta_if {
namespace {

/// The address as the event callback gets it: zero-terminated, alive during the call.
using AddressText = std::array<char, 16>;

AddressText addressText(std::string_view address) {
    AddressText text{};
    std::copy_n(address.begin(), std::min(address.size(), protocol::kAddressDigits), text.begin());
    return text;
}

ble_device connectedDevice(const protocol::ConnectionReport& report) {
    ble_device device(report.address, 0, report.index.value_or(0));
    device.setState(1);
    KX_LOG(verbosity::kInfo, "%s(%d) connected.", device.address().c_str(), device.index());
    return device;
}

void announce(CallbackTable& callbacks, const ble_device& device) {
    AddressText address = addressText(device.address());
    callbacks.raise(Event::kDeviceConnected, static_cast<unsigned>(device.index()), address.data());
}

}  // namespace

std::vector<ble_device> parseServiceConnected(std::string_view text) {
    std::vector<ble_device> devices;
    forEachPiece(text, '\n', [&](std::string_view line) {
        const auto report = protocol::readConnectionReport(line);
        if (!report) {
            return;
        }
        if (!report->index) {
            KX_LOG(verbosity::kWarning, "Parse error:%s", std::string(report->address).c_str());
        }
        devices.push_back(connectedDevice(*report));
    });
    return devices;
}

void handleServiceConnected(const ReportTargets& targets, const char* text) {
    if (text == nullptr) {
        return;
    }
    for (ble_device& device : parseServiceConnected(text)) {
        targets.registry.addOrUpdateDevice(device);
        announce(targets.callbacks, device);
    }
}

int collectGroupConnections(const ReportTargets& targets, std::string_view text) {
    int count = 0;
    forEachPiece(text, '\n', [&](std::string_view line) {
        const auto report = protocol::readConnectionReport(line);
        if (!report) {
            return;
        }
        ++count;
        const ble_device device = connectedDevice(*report);
        targets.registry.append(device);
        announce(targets.callbacks, device);
    });
    return count;
}

void handleClientDisconnected(const ReportTargets& targets, const char* text) {
    if (text == nullptr) {
        return;
    }
    const auto address = protocol::readDisconnectionReport(text);
    if (!address) {
        return;
    }
    AddressText zeroTerminated = addressText(*address);
    targets.registry.setDeviceState(*address, 0);
    KX_LOG(verbosity::kInfo, "Device %s disconnected.", zeroTerminated.data());
    targets.callbacks.raise(Event::kDeviceDisconnected, 0, zeroTerminated.data());
}

}  // namespace kxorbeta_if
