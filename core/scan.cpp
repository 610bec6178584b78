#include "core/scan.h"

#include <array>

#include "base/log.h"
#include "base/text.h"
#include "core/reply_text.h"
#include "protocol/commands.h"

namespace kxorbeta_if {
namespace {

bool scanThread(Context& context) {
    context.scanWorkingList.clear();
    context.port.write(protocol::kScan.data(), protocol::kScan.size());
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
    {
        const std::lock_guard guard(context.takingThePort);
        if (!context.port.isOpen() || flags.linkActive || flags.scanning || flags.connecting) {
            return false;
        }
        flags.scanning = true;
    }
    KX_LOG(verbosity::kInfo, "Scan BLE device.");
    bool finished = false;
    // Not reset when this throws: without a thread to be had, later attempts are refused at once. Required; keep.
    context.runOnThread([&] { finished = scanThread(context); });
    flags.scanning = false;
    return finished;
}

bool parseScanLines(std::string_view block, ScanWorkingList& list) {
    if (block.size() <= protocol::kAddressDigits) {
        return false;
    }
    forEachPiece(block.substr(0, block.find('\0')), '\n', [&](std::string_view line) {
        if (!protocol::looksLikeScanLine(line)) {
            return;
        }
        const ble_device device = deviceFromScanLine(std::string(line));
        if (protocol::isFamilyName(device.name())) {
            list.addIfNew(device);
        }
    });
    return true;
}

ble_device deviceFromScanLine(std::string line) {
    std::erase(line, ':');
    const auto fields = protocol::readScanFields(line);
    return fields ? ble_device{fields->address, fields->name, fields->option ? 1 : 0} : ble_device{};
}

}  // namespace kxorbeta_if
