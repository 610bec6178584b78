#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/text.h"

/// What the dongle says in words, and the fields of it. Fields are views into the text that they were read from.
namespace protocol {

namespace reply {
inline constexpr std::string_view kPong = "AT+OK";
inline constexpr std::string_view kServiceConnected = "Service connected.";
inline constexpr std::string_view kClientDisconnected = "Client disconnected";
inline constexpr std::string_view kList = "AT+LIST";
inline constexpr std::string_view kListPrefix = "AT+LIST=";
inline constexpr std::string_view kBootup = "Bootup";
inline constexpr std::string_view kGroupConnectionFinish = "Group connection finish";
inline constexpr std::string_view kFinishScan = "Finish scan";
}  // namespace reply

inline constexpr std::size_t kAddressDigits = 12;

struct ConnectionReport {
    std::string_view address;           ///< 12 hexadecimal digits, fewer when the line ends before
    std::optional<std::int32_t> index;  ///< nothing when it is malformed; 0 when the report has none
};

/// The report that a line holds: "Service connected." anywhere in it, spaces, the address, and the number behind the
/// first ',' that follows the spaces. Nothing when the line has no such text, names nobody, or its address holds
/// anything but hexadecimal digits.
std::optional<ConnectionReport> readConnectionReport(std::string_view line);

/// The address of the first disconnection report of a text: "Client disconnected", anything, ',', 12 hexadecimal digits
/// that end at the next ',' or with the text.
std::optional<std::string_view> readDisconnectionReport(std::string_view text);

struct ListReply {
    bool none;                 ///< the dongle says that nobody is connected
    std::string_view entries;  ///< up to the end of the line or text, for forEachListEntry()
};

/// The first list reply of a text.
std::optional<ListReply> readListReply(std::string_view text);

/// Calls `use(address, index)` for each entry "INDEX,ADDRESS" of a list, in order. Entries without a comma or with an
/// address that is not hexadecimal are left out; an index that is no 32-bit number counts as 0.
template <typename Use>
void forEachListEntry(std::string_view entries, Use&& use) {
    kxorbeta_if::forEachPiece(entries, ';', [&](std::string_view entry) {
        const std::size_t comma = entry.find(',');
        if (comma == std::string_view::npos) {
            return;
        }
        const std::string_view address = entry.substr(comma + 1);
        if (kxorbeta_if::isHexText(address)) {
            use(address, kxorbeta_if::leadingNumber(entry.substr(0, comma)).value_or(0));
        }
    });
}

/// Whether a line may report a headset during a scan: 12 characters, a comma, and something behind it. Such lines carry
/// no word that names them.
inline bool looksLikeScanLine(std::string_view line) {
    return line.size() > kAddressDigits + 1 && line[kAddressDigits] == ',';
}

struct ScanFields {
    std::string_view address;
    std::string_view name;  ///< as it came, a carriage return at its end included
    bool option;
};

/// The fields of a scan line "ADDRESS,NUMBER NAME" from which every ':' has been removed. A line without a space has no
/// name. Nothing when it is shorter than an address or its number is none.
std::optional<ScanFields> readScanFields(std::string_view line);

/// Whether a headset of this name is one of this family.
inline bool isFamilyName(std::string_view name) {
    constexpr std::string_view kInCommon = "AI";
    constexpr std::size_t kTooLong = 16;
    return name.find(kInCommon) != std::string_view::npos && name.size() < kTooLong;
}

}  // namespace protocol
