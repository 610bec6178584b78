// The command line.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/reporter.h"

namespace velmora::cli {

struct Invocation {
    std::function<void(Reporter&)> command;
    bool quiet = false;
};

/// Fills `invocation` from the arguments, in UTF-8 and without the program's name. Returns the exit code when the
/// program is to end at once: help was asked for, or the command line cannot be used; the text for the user has been
/// printed then.
std::optional<int> parseCommandLine(std::vector<std::string> arguments, Invocation& invocation);

}  // namespace velmora::cli
