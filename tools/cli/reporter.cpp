#include "cli/reporter.h"

#include <iostream>

#include "cli/terminal.h"

namespace velmora::cli {

Cancel& userStop() {
    static Cancel cancel;
    return cancel;
}

Reporter::Reporter(bool quiet)
    : quiet_(quiet), table_(!quiet && consoleOfOutput().interactive), display_(std::cout, eraseLines) {}

void Reporter::say(const std::string& text) {
    if (!quiet_) {
        warn(text);
    }
}

void Reporter::warn(const std::string& text) {
    if (shown_) {
        display_.note(text);
    } else {
        std::cerr << text << std::endl;
    }
}

void Reporter::show(const std::vector<std::string>& lines) {
    const Console console = consoleOfOutput();
    display_.show(lines, console.width, console.height);
    shown_ = true;
}

void Reporter::endTable() {
    if (shown_) {
        std::cout << "\r";  // in place of the ^C that a terminal shows
        shown_ = false;
    }
}

}  // namespace velmora::cli
