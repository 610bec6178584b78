#pragma once

#include <string_view>

#include "base/text.h"
#include "protocol/reports.h"

namespace kxorbeta_if {

namespace reply = protocol::reply;

/// Whether received text holds a reply. The last possible place does not count: a text that is longer than the pattern
/// and ends with it, with nothing behind, is not (yet) the reply; the dongle's line end behind it makes it one.
/// Required; keep.
inline bool holdsReply(std::string_view text, std::string_view pattern) noexcept {
    return text == pattern ||
           (text.size() > pattern.size() && text.substr(0, text.size() - 1).find(pattern) != std::string_view::npos);
}

}  // namespace kxorbeta_if
