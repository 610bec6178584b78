#include "core/receive_buffer.h"

#include <algorithm>

#include "base/log.h"
#include "base/text.h"

namespace kxorbeta_if {

void ReceiveBuffer::parse(std::size_t count, StreamFramer& framer) {
    if (history_.length() == 0) {
        framer.parse(room().first(count), history_);
        return;
    }
    const auto history = history_.bytes();
    std::size_t inFront = history.size();
    if (flags_.rawDump) {
        KX_LOG(verbosity::kTraffic, "HIST%d:%s", history_.length(), hexText(history).c_str());
    }
    if (inFront >= kLongestHistory) {
        KX_LOG(verbosity::kWarning, "History data full");
        inFront = 0;
    }
    const std::size_t start = kLongestHistory - inFront;
    std::copy_n(history.begin(), inFront, area_.begin() + static_cast<std::ptrdiff_t>(start));
    framer.parse(std::span(area_).subspan(start, inFront + count), history_);
    history_.clear();
}

}  // namespace kxorbeta_if
