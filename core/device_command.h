#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "core/command_queue.h"
#include "core/flags.h"

namespace kxorbeta_if {

/// Builds a headset's command frame of 8 or 16 bytes; empty for payload lengths that have no frame (5, 6, 7, 9, above
/// 12). With 4 and 12 bytes the payload takes the place of the command code.
Bytes commandFrame(std::uint8_t command, std::span<const std::uint8_t> payload);

/// How the dongle is told which headset a command is for: "AL" for 0 (all), one digit for 1 to 9, "11" for 10 to 12,
/// "1" for any other. The dongle's firmware expects exactly these texts.
std::string commandTarget(std::uint32_t deviceIndex);

/// Queues a command without payload. False, with nothing queued, when no headset is connected.
bool sendCommand(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command);

/// Queues a command with payload, if headsets are connected and the length has a frame. The result carries no
/// information: it is false in every case.
bool sendCommandWithPayload(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command,
                            std::span<const std::uint8_t> payload);

}  // namespace kxorbeta_if
