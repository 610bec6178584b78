#pragma once

#include <cstdint>
#include <span>

#include "core/command_queue.h"
#include "core/flags.h"

namespace kxorbeta_if {

/// Queues a command without payload. False, with nothing queued, when no headset is connected.
bool sendCommand(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command);

/// Queues a command with payload, if headsets are connected and the length has a frame. The result carries no
/// information: it is false in every case.
bool sendCommandWithPayload(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command,
                            std::span<const std::uint8_t> payload);

}  // namespace kxorbeta_if
