#include "core/scan.h"

#include <array>

#include "core/log.h"
#include "core/reply_text.h"
#include "core/text.h"

namespace kxorbeta_if {
namespace {

constexpr std::string_view kScanCommand("AT+SCAN\0", 8);
constexpr std::size_t kAddressDigits = 12;
constexpr std::size_t kShortestLine = 14;
constexpr std::string_view kFamilyName = "AI";  // what the names of this family's headsets have in common
constexpr std::size_t kNameTooLong = 16;

bool scanThread(Context& context) {
    context.scanWorkingList.clear();
    context.port.write(kScanCommand.data(), kScanCommand.size());
    std::array<char, 512> buffer;
    for (int tried = 0; tried < context.timing.scanReads; ++tried) {
        buffer.fill(0);
        const int count = context.port.read(buffer.data(), buffer.size() - 1, context.timing.scanReadTimeoutMs);
        if (count <= 0) {
            continue;
        }
        const std::string_view text(buffer.data());
        if (text.find(reply::kFinishScan) != std::string_view::npos) {
            return true;
        }
        parseScanLines({buffer.data(), static_cast<std::size_t>(count)}, context.scanWorkingList);
    }
    return false;
}

}  // namespace

bool scan(Context& context) {
    Flags& flags = context.flags;
    if (!context.port.isOpen() || flags.linkActive || flags.connecting || flags.scanning.exchange(true)) {
        return false;
    }
    KX_LOG(verbosity::kInfo, "Scan BLE device.");
    bool finished = false;
    // Not reset when this throws: without a thread to be had, later attempts are refused at once.
    context.runOnThread([&] { finished = scanThread(context); });
    flags.scanning = false;
    return finished;
}

bool parseScanLines(std::string_view block, ScanWorkingList& list) {
    if (block.size() <= kAddressDigits) {
        return false;
    }
    forEachPiece(block.substr(0, block.find('\0')), '\n', [&](std::string_view line) {
        if (line.size() < kShortestLine || line[kAddressDigits] != ',') {
            return;
        }
        const ble_device device = deviceFromScanLine(std::string(line));
        if (device.name().find(kFamilyName) == std::string::npos || device.name().size() >= kNameTooLong) {
            return;
        }
        list.addIfNew(device);
    });
    return true;
}

ble_device deviceFromScanLine(std::string line) {
    std::erase(line, ':');
    if (line.size() < kAddressDigits) {
        return {};
    }
    const std::string_view text(line);
    const std::string_view address = text.substr(0, kAddressDigits);
    const std::size_t space = text.find(' ');
    if (space == std::string_view::npos) {
        return {address, "", 0};
    }
    const std::string_view name = text.substr(space + 1, text.find('\n', space) - space - 1);
    const std::size_t comma = text.find(',');
    if (comma == std::string_view::npos) {
        return {address, name, 0};
    }
    const auto number = comma < space ? leadingNumber(text.substr(comma + 1, space - comma - 1)) : std::nullopt;
    if (!number) {
        return {};
    }
    return {address, name, *number != 0 ? 1 : 0};
}

}  // namespace kxorbeta_if
