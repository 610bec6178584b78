#include "core/reply_handlers.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "core/log.h"
#include "core/reply_text.h"
#include "core/text.h"

namespace kxorbeta_if {
namespace {

constexpr std::size_t kAddressDigits = 12;

/// The address as the event callback gets it: zero-terminated, alive during the call.
using AddressText = std::array<char, 16>;

AddressText addressText(std::string_view address) {
    AddressText text{};
    std::copy_n(address.begin(), std::min(address.size(), kAddressDigits), text.begin());
    return text;
}

struct ConnectionReport {
    std::string_view address;
    std::optional<std::int32_t> index;  // nothing when it is malformed; 0 when the report has none
};

std::optional<ConnectionReport> readConnectionReport(std::string_view line) {
    const std::size_t marker = line.find(reply::kServiceConnected);
    if (marker == std::string_view::npos) {
        return std::nullopt;
    }
    const std::size_t start = line.find_first_not_of(' ', marker + reply::kServiceConnected.size());
    if (start == std::string_view::npos) {
        return std::nullopt;  // a report that names nobody
    }
    const std::string_view report = line.substr(start);
    ConnectionReport result{report.substr(0, kAddressDigits), 0};
    if (!isHexText(result.address)) {
        return std::nullopt;
    }
    if (const std::size_t comma = report.find(','); comma != std::string_view::npos) {
        result.index = leadingNumber(report.substr(comma + 1));
    }
    return result;
}

ble_device connectedDevice(const ConnectionReport& report) {
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
        const auto report = readConnectionReport(line);
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
        const auto report = readConnectionReport(line);
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
    std::string_view report(text);
    const std::size_t marker = report.find(reply::kClientDisconnected);
    if (marker == std::string_view::npos) {
        return;
    }
    report.remove_prefix(marker);
    const std::size_t comma = report.find(',');
    if (comma == std::string_view::npos) {
        return;
    }
    // The address runs to the next comma or to the end of the text; what follows it is of no use here.
    const std::string_view rest = report.substr(comma + 1);
    const std::string_view address = rest.substr(0, rest.find(','));
    if (!isHexText(address) || address.size() != kAddressDigits) {
        return;
    }
    AddressText zeroTerminated = addressText(address);
    targets.registry.setDeviceState(address, 0);
    KX_LOG(verbosity::kInfo, "Device %s disconnected.", zeroTerminated.data());
    targets.callbacks.raise(Event::kDeviceDisconnected, 0, zeroTerminated.data());
}

}  // namespace kxorbeta_if
