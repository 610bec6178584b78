// What the program needs of the console and of how it was started.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velmora::cli {

struct Console {
    bool interactive = false;  ///< standard output is a terminal on which lines can be redrawn
    int width = 80;            ///< columns
    int height = 24;
};
Console consoleOfOutput();

/// Makes a console show UTF-8 texts; does nothing where it does so by itself.
void prepareConsole();

/// Takes the last `count` lines away from the terminal of standard output, which has been flushed.
void eraseLines(int count);

/// The program's arguments in UTF-8, without its own name.
std::vector<std::string> programArguments(int argc, char** argv);

/// Keys as they are pressed, without waiting for the end of a line, and characters that come through a pipe. The
/// terminal is as it was when this goes.
class Keyboard {
  public:
    Keyboard();
    ~Keyboard();
    Keyboard(const Keyboard&) = delete;
    Keyboard& operator=(const Keyboard&) = delete;

    /// The next one; nothing when there is none yet. Does not wait.
    std::optional<char> poll();

  private:
    struct Inside;
    Inside* inside_;
};

}  // namespace velmora::cli
