// What the program tells its user while it works.
#pragma once

#include <string>
#include <vector>

#include "cli/live_display.h"
#include "velmora/velmora.hpp"

namespace velmora::cli {

/// Raised when the user asks for the end (Ctrl-C).
Cancel& userStop();

/// Notices go to standard error; while a table is shown on the terminal, above that.
class Reporter {
  public:
    /// `quiet`: no progress, no table.
    explicit Reporter(bool quiet);

    void say(const std::string& text);   ///< progress
    void warn(const std::string& text);  ///< shown also when quiet

    /// Whether show() redraws in place.
    bool showsTable() const { return table_; }
    /// Puts these lines in the place of those before.
    void show(const std::vector<std::string>& lines);
    /// The lines stay, and what is written next stands below.
    void endTable();

  private:
    const bool quiet_;
    const bool table_;
    bool shown_ = false;
    LiveDisplay display_;
};

}  // namespace velmora::cli
