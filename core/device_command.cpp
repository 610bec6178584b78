#include "core/device_command.h"

#include <algorithm>
#include <string_view>

#include "core/headset_protocol.h"

namespace kxorbeta_if {
namespace {

using namespace headset;

constexpr std::size_t kShortFrame = 8;
constexpr std::size_t kLongFrame = 16;
constexpr std::uint8_t kPayloadFromByte4 = 0xFF;  // in byte 3 of a long frame

/// Queues the frame bare, or in the envelope that names the headset to the dongle.
void enqueue(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, const Bytes& frame) {
    if (!flags.ctlFraming) {
        queue.push(frame);
        return;
    }
    const std::string prefix = "AT+CTL" + commandTarget(deviceIndex) + ":";
    Bytes envelope(prefix.begin(), prefix.end());
    envelope.insert(envelope.end(), frame.begin(), frame.end());
    queue.push(envelope);
}

}  // namespace

Bytes commandFrame(std::uint8_t command, std::span<const std::uint8_t> payload) {
    const std::size_t n = payload.size();
    const bool isShort = n <= 4;
    if (!isShort && n != 8 && n != 10 && n != 11 && n != 12) {
        return {};
    }
    const std::size_t length = isShort ? kShortFrame : kLongFrame;
    Bytes frame(length);
    frame[0] = kCommandStart;
    frame[1] = kCommandSecond;
    frame[2] = kCommandThird;

    const std::size_t commandOffset = length - 2;
    frame[commandOffset] = command;  // a full payload, written next, takes its place
    std::size_t payloadOffset = 3;
    if (isShort && n < 3) {
        payloadOffset = commandOffset - n;  // leans against the command code
    } else if (n == 8 || n == 10) {
        frame[3] = kPayloadFromByte4;
        payloadOffset = 4;
    }
    std::copy(payload.begin(), payload.end(), frame.begin() + static_cast<std::ptrdiff_t>(payloadOffset));
    frame[length - 1] = checkByte(std::span(frame).subspan(2, length - 3));
    return frame;
}

std::string commandTarget(std::uint32_t deviceIndex) {
    if (deviceIndex == 0) {
        return "AL";
    }
    if (deviceIndex <= 9) {
        return std::to_string(deviceIndex);
    }
    return deviceIndex <= 12 ? "11" : "1";
}

bool sendCommand(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command) {
    if (!flags.linkActive) {
        return false;
    }
    enqueue(flags, queue, deviceIndex, commandFrame(command, {}));
    return true;
}

bool sendCommandWithPayload(const Flags& flags, CommandQueue& queue, std::uint32_t deviceIndex, std::uint8_t command,
                            std::span<const std::uint8_t> payload) {
    if (!flags.linkActive) {
        return false;
    }
    if (const Bytes frame = commandFrame(command, payload); !frame.empty()) {
        enqueue(flags, queue, deviceIndex, frame);
    }
    return false;
}

}  // namespace kxorbeta_if
