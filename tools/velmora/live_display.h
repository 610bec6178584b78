// Lines that are redrawn in place on a terminal.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace velmora {

class LiveDisplay {
  public:
    /// Draws on `out`, which lives longer.
    explicit LiveDisplay(std::ostream& out) : out_(out) {}

    /// Replaces the lines shown before. Each is cut to fit `width` columns: a wrapped line could not be redrawn.
    void show(const std::vector<std::string>& lines, int width);
    /// Puts a line that stays above them.
    void note(const std::string& text);

  private:
    void erase();

    std::ostream& out_;
    std::vector<std::string> shown_;
};

}  // namespace velmora
