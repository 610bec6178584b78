// How a run of the program ends.
#pragma once

#include <stdexcept>
#include <string>

namespace velmora {

enum ExitCode : int {
    kExitDone = 0,
    kExitDongle = 1,
    kExitUsage = 2,
    kExitPort = 3,
    kExitNotConnected = 4,
    kExitNoData = 5,
    kExitOutput = 6,
    kExitInterrupted = 7,
};

inline constexpr const char* kExitCodesHelp =
    "Exit codes:\n"
    "  0  done; for stream also when ended by Ctrl-C\n"
    "  1  the dongle did not do it: no dongle or headset found, or a scan without an end\n"
    "  2  the command line cannot be used\n"
    "  3  the port cannot be opened\n"
    "  4  no headset connected\n"
    "  5  no data comes, or comes any more\n"
    "  6  the output cannot be written\n"
    "  7  interrupted before it was done\n"
    "The library gives no reasons for failures; it writes them to kxsdk.log in the current directory.";

/// Ends the command: the text goes to the user, the code to the caller of the program.
class Failure : public std::runtime_error {
  public:
    Failure(ExitCode code, const std::string& text) : std::runtime_error(text), code_(code) {}
    ExitCode code() const { return code_; }

  private:
    ExitCode code_;
};

/// For failures whose reason only the library knows.
inline std::string seeLog(const std::string& text) {
    return text + "; the reason, as far as it is known, stands in kxsdk.log in the current directory";
}

}  // namespace velmora
