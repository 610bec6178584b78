#include "velmora/live_display.h"

#include <algorithm>
#include <ostream>

namespace velmora {

void LiveDisplay::erase() {
    // Up to the first of our lines, then clear from there to the end of the screen.
    if (!shown_.empty())
        out_ << "\x1b[" << shown_.size() << "A\r\x1b[J";
}

void LiveDisplay::show(const std::vector<std::string>& lines, int width) {
    erase();
    shown_.clear();
    // The last column stays free: some terminals wrap as soon as it is filled.
    const auto room = static_cast<std::size_t>(std::max(width - 1, 1));
    for (const std::string& line : lines) {
        shown_.push_back(line.substr(0, room));
        out_ << shown_.back() << "\n";
    }
    out_.flush();
}

void LiveDisplay::note(const std::string& text) {
    erase();
    out_ << text << "\n";
    for (const std::string& line : shown_)
        out_ << line << "\n";
    out_.flush();
}

}  // namespace velmora
