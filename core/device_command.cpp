#include "core/device_command.h"

#include "protocol/commands.h"

namespace kxorbeta_if {
namespace {

/// Queues the frame bare, or in the envelope that names the headset to the dongle.
void enqueue(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, const protocol::CommandFrame& frame) {
    if (flags.ctlFraming) {
        queue.push(protocol::commandEnvelope(deviceIndex, frame).bytes());
    } else {
        queue.push(frame.bytes());
    }
}

}  // namespace

bool sendCommand(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command) {
    if (!flags.linkActive) {
        return false;
    }
    enqueue(flags, queue, deviceIndex, protocol::commandFrame(command, {}));
    return true;
}

bool sendCommandWithPayload(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command,
                            std::span<const std::uint8_t> payload) {
    if (!flags.linkActive) {
        return false;
    }
    if (const auto frame = protocol::commandFrame(command, payload); !frame.empty()) {
        enqueue(flags, queue, deviceIndex, frame);
    }
    return false;
}

}  // namespace kxorbeta_if
