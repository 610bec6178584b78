#include "core/report_router.h"

#include "core/reply_text.h"

namespace kxorbeta_if {

bool ReportRouter::route(std::string_view chunk) {
    const bool disconnected = holdsReply(chunk, reply::kClientDisconnected);
    const bool list = holdsReply(chunk, reply::kList);
    const bool connected = holdsReply(chunk, reply::kServiceConnected);
    if (disconnected || list || connected) {
        const char* const text = printableText(chunk);
        if (disconnected) {
            handleClientDisconnected(targets_, text);
        }
        if (list) {
            targets_.registry.handleDeviceList(text);
        }
        if (connected) {
            handleServiceConnected(targets_, text);
        }
    }
    return holdsReply(chunk, reply::kBootup);
}

/// The chunk's printable characters and line feeds, zero-terminated.
const char* ReportRouter::printableText(std::string_view chunk) {
    std::size_t length = 0;
    for (const char c : chunk) {
        if (length == kLongestText) {
            break;
        }
        if ((c >= 0x20 && c <= 0x7E) || c == '\n') {
            text_[length++] = c;
        }
    }
    text_[length] = '\0';
    return text_.data();
}

}  // namespace kxorbeta_if
