// How a run of the program ends.
#pragma once

#include <stdexcept>
#include <string>

#include "velmora/velmora.hpp"

namespace velmora::cli {

enum ExitCode : int {
    kDone = 0,
    kNotDone = 1,
    kUsage = 2,
    kNoPort = 3,
    kNotConnected = 4,
    kNoData = 5,
    kNoOutput = 6,
    kInterrupted = 7,
    kLosses = 8,
};

inline constexpr const char* kExitCodesHelp =
    "Exit codes:\n"
    "  0  done; for stream and record also when ended by Ctrl-C\n"
    "  1  not done: no dongle, no headset or no answer; doctor: something is to be mended\n"
    "  2  the command line cannot be used\n"
    "  3  the port is missing, held by another program, or forbidden to this user\n"
    "  4  a headset was not connected\n"
    "  5  the data ended: the dongle was unplugged or restarted, or every headset left or fell silent\n"
    "  6  an output file or standard output cannot be written\n"
    "  7  interrupted before it was done\n"
    "  8  done, but more packets were lost than --max-loss allows";

/// Ends the command: the text goes to the user, the code to the caller of the program.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

/// The same for a call of the library that failed: its text speaks to programmers where a program can do something, and
/// the user of this one can do something else.
Failure asFailure(const Error& error);

}  // namespace velmora::cli
