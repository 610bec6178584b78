// The command line of velmora-dongle.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "dongle/dongle_settings.h"

namespace dongle {

inline constexpr int kExitFine = 0;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitPort = 3;

struct ProgramOptions {
    Settings settings;
    std::string port;  ///< existing serial port; empty: a new pseudo-terminal
    /// Where to put a link to the pseudo-terminal: each plugging in takes the next one. Empty: nowhere.
    std::vector<std::string> links;
    std::string accountFile;  ///< where to write the account of packets; empty: none is kept
    Time duration{0};         ///< the program ends by itself after that; zero: it does not
    bool quiet = false;       ///< no line per request
};

/// Fills `options`. Returns the exit code when the program is to end at once: help was asked for, or the command line
/// cannot be used; the text for the user has been printed then.
std::optional<int> parseCommandLine(int argc, const char* const* argv, ProgramOptions& options);

/// Changes one headset as "NUMBER:key=value,key=value" says. Returns what is wrong with the text, nothing when all is
/// well.
std::optional<std::string> changeHeadset(const std::string& text, Settings& settings);

}  // namespace dongle
