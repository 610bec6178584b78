#include "cli/live_display.h"

#include <algorithm>
#include <ostream>

namespace velmora::cli {

void LiveDisplay::erase() {
    if (!shown_.empty()) {
        out_.flush();
        erase_(static_cast<int>(shown_.size()));
    }
}

void LiveDisplay::show(const std::vector<std::string>& lines, int width, int height) {
    erase();
    shown_.clear();
    // The last column stays free: some terminals wrap as soon as it is filled.
    const auto room = static_cast<std::size_t>(std::max(width - 1, 1));
    const auto most = static_cast<std::size_t>(std::max(height - 1, 1));
    for (const std::string& line : lines) {
        if (shown_.size() == most) {
            break;
        }
        shown_.push_back(line.substr(0, room));
    }
    draw("");
}

/// In one piece, so that nothing flickers.
void LiveDisplay::draw(std::string text) {
    for (const std::string& line : shown_) {
        text += line + "\n";
    }
    out_ << text << std::flush;
}

void LiveDisplay::note(const std::string& text) {
    erase();
    draw(text + "\n");
}

}  // namespace velmora::cli
