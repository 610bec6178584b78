#include "protocol/commands.h"

#include <algorithm>

#include "protocol/headset_frames.h"

namespace protocol {
namespace {

constexpr std::size_t kShortFrame = 8;
constexpr std::size_t kLongFrame = 16;
constexpr std::uint8_t kPayloadFromByte4 = 0xFF;  // in byte 3 of a long frame

}  // namespace

void appendGroupMember(std::string& command, bool first, std::string_view address, int option) {
    if (!first) {
        command += ';';
    }
    command += address;
    if (option != 0) {
        command += std::to_string(option);
    }
}

CommandFrame commandFrame(std::uint8_t command, std::span<const std::uint8_t> payload) {
    const std::size_t n = payload.size();
    const bool isShort = n <= 4;
    CommandFrame frame;
    if (!isShort && n != 8 && n != 10 && n != 11 && n != 12) {
        return frame;
    }
    const auto bytes = frame.resize(isShort ? kShortFrame : kLongFrame);
    bytes[0] = 0xAA;
    bytes[1] = 0xCC;
    bytes[2] = 0x03;

    const std::size_t commandOffset = bytes.size() - 2;
    bytes[commandOffset] = command;  // a full payload, written next, takes its place
    std::size_t payloadOffset = 3;
    if (isShort && n < 3) {
        payloadOffset = commandOffset - n;  // leans against the command code
    } else if (n == 8 || n == 10) {
        bytes[3] = kPayloadFromByte4;
        payloadOffset = 4;
    }
    std::copy(payload.begin(), payload.end(), bytes.begin() + static_cast<std::ptrdiff_t>(payloadOffset));
    bytes.back() = checkByte(bytes.subspan(2, bytes.size() - 3));
    return frame;
}

std::string_view commandTarget(std::uint32_t headset) {
    if (headset == 0) {
        return "AL";
    }
    if (headset <= 9) {
        return std::string_view("123456789").substr(headset - 1, 1);
    }
    return headset <= 12 ? "11" : "1";
}

CommandEnvelope commandEnvelope(std::uint32_t headset, const CommandFrame& frame) {
    constexpr std::string_view kPrefix = "AT+CTL";
    const std::string_view target = commandTarget(headset);
    const auto content = frame.bytes();
    CommandEnvelope envelope;
    const auto bytes = envelope.resize(kPrefix.size() + target.size() + 1 + content.size());
    auto next = std::copy(kPrefix.begin(), kPrefix.end(), bytes.begin());
    next = std::copy(target.begin(), target.end(), next);
    *next++ = ':';
    std::copy(content.begin(), content.end(), next);
    return envelope;
}

}  // namespace protocol
