#include <algorithm>
#include <set>
#include <span>
#include <string>

#include "base/text.h"
#include "core/scan.h"
#include "fuzz_support.h"
#include "support/exact_block.h"

namespace {

constexpr std::size_t kLongestRead = 511;

void check(const kxorbeta_if::ble_device& device) {
    fuzz::require(device.address().size() == 12 || (device.address().empty() && device.name().empty()));
    fuzz::require(device.option() == 0 || device.option() == 1);
}

}  // namespace

/// One record straight from the text, and a scan that reads it in pieces.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::Log log(true);
    check(kxorbeta_if::deviceFromScanLine({data, data + size}));

    kxorbeta_if::ScanWorkingList list;
    for (std::span<const std::uint8_t> rest(data, size); !rest.empty();) {
        const test::ExactBlock block(rest.first(std::min(rest.size(), kLongestRead)));
        kxorbeta_if::parseScanLines(kxorbeta_if::asText(block.span()), list);
        rest = rest.subspan(block.span().size());
    }
    std::set<std::string> addresses;
    for (const kxorbeta_if::ble_device& device : list.snapshot()) {
        check(device);
        fuzz::require(device.name().find("AI") != std::string::npos && device.name().size() < 16);
        fuzz::require((device.address() + device.name()).find('\0') == std::string::npos);  // text ends there
        fuzz::require(addresses.insert(device.address()).second);
    }
    return 0;
}
