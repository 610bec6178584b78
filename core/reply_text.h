#pragma once

#include <cstdint>
#include <span>
#include <string_view>

/// The dongle's text replies: what marks them, and how received bytes become lines of text.
namespace kxorbeta_if {

namespace reply {
inline constexpr std::string_view kServiceConnected = "Service connected.";
inline constexpr std::string_view kClientDisconnected = "Client disconnected";
inline constexpr std::string_view kList = "AT+LIST";
inline constexpr std::string_view kListPrefix = "AT+LIST=";
inline constexpr std::string_view kBootup = "Bootup";
inline constexpr std::string_view kGroupConnectionFinish = "Group connection finish";
inline constexpr std::string_view kFinishScan = "Finish scan";
}  // namespace reply

/// Whether received text holds a reply. The last possible place does not count: a text that is longer than the pattern
/// and ends with it, with nothing behind, is not (yet) the reply; the dongle's line end behind it makes it one.
inline bool holdsReply(std::string_view text, std::string_view pattern) noexcept {
    return text == pattern ||
           (text.size() > pattern.size() && text.substr(0, text.size() - 1).find(pattern) != std::string_view::npos);
}

/// Calls `use` for every piece of `text` between delimiters, as a standard line reader yields them: the delimiter
/// belongs to no piece, a last piece without delimiter counts, nothing follows a delimiter that ends the text.
template <typename Use>
void forEachPiece(std::string_view text, char delimiter, Use&& use) {
    while (!text.empty()) {
        const std::size_t end = text.find(delimiter);
        use(text.substr(0, end));
        if (end == std::string_view::npos) {
            return;
        }
        text.remove_prefix(end + 1);
    }
}

}  // namespace kxorbeta_if
