#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/callback_table.h"
#include "core/flags.h"
#include "core/receive_tables.h"

namespace kxorbeta_if {

/// What decoding needs beside the bytes.
struct DecoderTables {
    CallbackTable& callbacks;
    PacketCounters& packetCounters;
    const Flags& flags;
};

/// The device decoder: decodes the frames of one headset and calls the callbacks on the calling thread.
/// `bytes` begin where the last call ended. Returns how many were consumed; the rest is an incomplete frame (at most
/// 229 bytes), to be given again with more bytes behind it. `device` is 0 to 15.
std::size_t decodeDeviceFrames(const DecoderTables& tables, int device, std::span<const std::uint8_t> bytes);

/// The direct decoder: the same for a stream that is not wrapped in the dongle's envelopes and thus names no headset;
/// everything counts as device 0. Response frames are handed over in place, so the callback sees and may change
/// `bytes`.
std::size_t decodeDirectFrames(const DecoderTables& tables, std::span<std::uint8_t> bytes);

}  // namespace kxorbeta_if
