#include <algorithm>
#include <cstring>
#include <memory>
#include <span>

#include "base/text.h"
#include "core/reply_handlers.h"
#include "fuzz_support.h"
#include "support/exact_block.h"

namespace {

void onEvent(void* context, unsigned int code, unsigned int value, void* detail) {
    const auto* const address = static_cast<const char*>(detail);
    const std::size_t length = std::strlen(address);
    fuzz::require(length <= 12 && kxorbeta_if::isHexText({address, length}));
    fuzz::require(code == 2 || (code == 1 && value == 0 && length == 12));
    ++*static_cast<int*>(context);
}

}  // namespace

/// Every handler over the same text and one registry, the handlers of the link thread with a zero byte at the end and
/// the others without.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::Log log(true);
    kxorbeta_if::DeviceRegistry registry;
    kxorbeta_if::CallbackTable callbacks;
    int events = 0;
    callbacks.context = &events;
    callbacks.event = &onEvent;
    const kxorbeta_if::ReportTargets targets{registry, callbacks};

    const test::ExactBlock plain(std::span(data, size));
    const auto terminated = std::make_unique<char[]>(size + 1);  // zeroed
    std::copy_n(data, size, terminated.get());
    const char* const text = terminated.get();

    const int collected = kxorbeta_if::collectGroupConnections(targets, kxorbeta_if::asText(plain.span()));
    fuzz::require(events == collected && registry.snapshot().size() == static_cast<std::size_t>(collected));
    kxorbeta_if::handleClientDisconnected(targets, text);
    registry.handleDeviceList(text);
    kxorbeta_if::handleServiceConnected(targets, text);
    kxorbeta_if::parseDeviceList(kxorbeta_if::asText(plain.span()));
    for (const kxorbeta_if::ble_device& device : registry.snapshot()) {
        fuzz::require(kxorbeta_if::isHexText(device.address()) && device.name().empty() && device.option() == 0);
        fuzz::require(device.state() == 0 || device.state() == 1);
    }
    return 0;
}
