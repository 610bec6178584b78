// Cuts what the host sends into requests, however the line has cut it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dongle/dongle_settings.h"
#include "dongle/headset_frames.h"

namespace dongle {

struct HostRequest {
    enum class Kind {
        Text,     ///< a text that begins with "AT+", without its final zero byte
        Command,  ///< "AT+CTL": a frame for one headset or all
        Garbage,  ///< bytes that are neither
    };
    Kind kind = Kind::Garbage;
    Time time{0};             ///< when its last byte arrived
    std::string text;         ///< Text: the text
    Bytes bytes;              ///< Command: the frame, 8 or 16 bytes; Garbage: the bytes
    std::string target;       ///< Command: the text between "AT+CTL" and ':'
    bool checkByteOk = true;  ///< Command: the frame's check byte is right

    /// Command: the byte in front of the check byte.
    std::uint8_t commandByte() const;
    /// Command: the bytes between the frame's head and the command byte: 3 or 11.
    std::span<const std::uint8_t> payload() const;
};

/// One line for people: "AT+SCAN", "command 0x01 to device 2, payload 00 00 00".
std::string describe(const HostRequest& request);

class HostParser {
  public:
    /// Takes the next bytes and returns the requests that they complete. Bytes of an unfinished request are kept for
    /// two seconds at most: a host writes each request at once, so a rest that old belongs to nothing.
    std::vector<HostRequest> take(std::span<const std::uint8_t> bytes, Time now);

  private:
    /// Takes one request off the front of `pending_`; false when that needs more bytes.
    bool cutOne(std::vector<HostRequest>& requests);
    bool cutCommand(std::vector<HostRequest>& requests);
    void cutGarbage(std::size_t count, std::vector<HostRequest>& requests);
    bool startsWith(std::string_view text, std::size_t at = 0) const;

    std::string pending_;
    Time lastBytes_{0};
};

}  // namespace dongle
