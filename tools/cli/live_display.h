// Lines that are redrawn in place on a terminal.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace velmora::cli {

inline constexpr double kRedrawSeconds = 0.25;

class LiveDisplay {
  public:
    /// Takes away the last `count` lines; the next one is written where the first of them was.
    using Erase = std::function<void(int count)>;

    /// Draws on `out`, which lives longer.
    LiveDisplay(std::ostream& out, Erase erase) : out_(out), erase_(std::move(erase)) {}

    /// Replaces the lines shown before. Each is cut to fit `width` columns and there are at most `height` - 1: a line
    /// that is wrapped or scrolled away could not be redrawn.
    void show(const std::vector<std::string>& lines, int width, int height);
    /// Puts a line that stays above them.
    void note(const std::string& text);

  private:
    void erase();
    void draw(std::string text);

    std::ostream& out_;
    const Erase erase_;
    std::vector<std::string> shown_;
};

}  // namespace velmora::cli
