#include "dongle/host_parser.h"

#include <algorithm>
#include <cstdio>

namespace dongle {

namespace {

constexpr Time kPatience = 2s;
constexpr std::string_view kStart = "AT+";
constexpr std::string_view kPing = "AT+PING";
constexpr std::string_view kControl = "AT+CTL";
// The longest text is a group connection of 512 characters.
constexpr std::size_t kLongestText = 1024;
constexpr std::size_t kLongestTarget = 8;
constexpr std::size_t kShortFrame = 8;
constexpr std::size_t kLongFrame = 16;

Bytes toBytes(std::string_view text) {
    return {text.begin(), text.end()};
}

bool checkOk(std::string_view frame, std::size_t size) {
    if (frame.size() < size) {
        return false;
    }
    const Bytes bytes = toBytes(frame.substr(0, size));
    return checkByte(std::span(bytes).subspan(2, size - 3)) == bytes.back();
}

std::string hex(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X ", static_cast<unsigned>(byte));
        text += digits.data();
    }
    if (!text.empty()) {
        text.pop_back();
    }
    return text;
}

}  // namespace

std::uint8_t HostRequest::commandByte() const {
    return bytes.size() < 2 ? std::uint8_t{0} : bytes[bytes.size() - 2];
}

std::span<const std::uint8_t> HostRequest::payload() const {
    return bytes.size() < kShortFrame ? std::span<const std::uint8_t>{} : std::span(bytes).subspan(3, bytes.size() - 5);
}

std::string describe(const HostRequest& request) {
    switch (request.kind) {
        case HostRequest::Kind::Text:
            return request.text;
        case HostRequest::Kind::Command: {
            std::array<char, 8> command{};
            std::snprintf(command.data(), command.size(), "0x%02X", static_cast<unsigned>(request.commandByte()));
            const std::string whom = request.target == "AL" ? "all devices" : "device " + request.target;
            return std::string("command ") + command.data() + " to " + whom + ", payload " + hex(request.payload()) +
                   (request.checkByteOk ? "" : " (wrong check byte)");
        }
        case HostRequest::Kind::Garbage:
            break;
    }
    return "unknown bytes " + hex(request.bytes);
}

std::vector<HostRequest> HostParser::take(std::span<const std::uint8_t> bytes, Time now) {
    std::vector<HostRequest> requests;
    if (!pending_.empty() && now - lastBytes_ > kPatience) {
        cutGarbage(pending_.size(), requests);
    }
    pending_.append(bytes.begin(), bytes.end());
    lastBytes_ = now;
    while (cutOne(requests)) {
    }
    for (HostRequest& request : requests) {
        request.time = now;
    }
    return requests;
}

bool HostParser::startsWith(std::string_view text, std::size_t at) const {
    return std::string_view(pending_).substr(at, text.size()) == text;
}

void HostParser::cutGarbage(std::size_t count, std::vector<HostRequest>& requests) {
    HostRequest request;
    request.bytes = toBytes(std::string_view(pending_).substr(0, count));
    requests.push_back(std::move(request));
    pending_.erase(0, count);
}

bool HostParser::cutOne(std::vector<HostRequest>& requests) {
    if (pending_.empty()) {
        return false;
    }
    if (pending_.front() == '\0') {
        // A zero byte behind a request that needs none.
        pending_.erase(0, 1);
        return true;
    }
    const std::size_t start = pending_.find(kStart);
    if (start == std::string::npos) {
        // The last bytes may be the beginning of a start; everything in front of them belongs to nothing.
        std::size_t kept = std::min(pending_.size(), kStart.size() - 1);
        while (kept > 0 && !kStart.starts_with(std::string_view(pending_).substr(pending_.size() - kept))) {
            --kept;
        }
        if (kept == pending_.size()) {
            return false;
        }
        cutGarbage(pending_.size() - kept, requests);
        return true;
    }
    if (start > 0) {
        cutGarbage(start, requests);
        return true;
    }
    if (startsWith(kPing)) {
        HostRequest request;
        request.kind = HostRequest::Kind::Text;
        request.text = kPing;
        requests.push_back(std::move(request));
        pending_.erase(0, kPing.size());
        return true;
    }
    if (startsWith(kControl)) {
        return cutCommand(requests);
    }

    const std::size_t end = pending_.find('\0');
    const std::size_t next = pending_.find(kStart, kStart.size());
    if (next < end) {
        // A second start before the zero byte: the first request was never finished.
        cutGarbage(next, requests);
        return true;
    }
    if (end == std::string::npos) {
        if (pending_.size() <= kLongestText) {
            return false;
        }
        cutGarbage(pending_.size(), requests);
        return true;
    }
    HostRequest request;
    request.kind = HostRequest::Kind::Text;
    request.text = pending_.substr(0, end);
    requests.push_back(std::move(request));
    pending_.erase(0, end + 1);
    return true;
}

bool HostParser::cutCommand(std::vector<HostRequest>& requests) {
    const std::size_t colon = pending_.find(':', kControl.size());
    const std::size_t next = pending_.find(kStart, kControl.size());
    if (next < colon) {
        cutGarbage(next, requests);
        return true;
    }
    if (colon == std::string::npos || colon > kControl.size() + kLongestTarget) {
        if (colon == std::string::npos && pending_.size() <= kControl.size() + kLongestTarget) {
            return false;
        }
        cutGarbage(kControl.size(), requests);
        return true;
    }
    const std::string_view frame = std::string_view(pending_).substr(colon + 1);
    constexpr std::string_view kHead = "\xAA\xCC";
    if (frame.substr(0, kHead.size()) != kHead.substr(0, frame.size())) {
        cutGarbage(colon + 1, requests);
        return true;
    }
    if (frame.size() < kShortFrame) {
        return false;
    }

    // The check byte tells the two sizes apart. Where the payload of a long frame happens to hold a right short check
    // byte in its eighth place, a right long check byte decides, unless the next request begins behind the short frame.
    const bool nextBehindShort = frame.substr(kShortFrame).starts_with(kStart);
    const bool shortOk = checkOk(frame, kShortFrame);
    const bool longOk = checkOk(frame, kLongFrame) && !(shortOk && nextBehindShort);
    if (!shortOk && !nextBehindShort && frame.size() < kLongFrame) {
        return false;
    }
    const std::size_t size = longOk || (!shortOk && !nextBehindShort) ? kLongFrame : kShortFrame;

    HostRequest request;
    request.kind = HostRequest::Kind::Command;
    request.target = pending_.substr(kControl.size(), colon - kControl.size());
    request.bytes = toBytes(frame.substr(0, size));
    request.checkByteOk = shortOk || longOk;
    requests.push_back(std::move(request));
    pending_.erase(0, colon + 1 + size);
    return true;
}

}  // namespace dongle
