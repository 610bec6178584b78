// The command line.
#pragma once

#include <functional>
#include <optional>

#include "velmora/commands.h"

namespace velmora {

struct Invocation {
    std::function<void(Session&)> command;
    bool quiet = false;
};

/// Fills `invocation`. Returns the exit code when the program is to end at once: help was asked for, or the command
/// line cannot be used; the text for the user has been printed then.
std::optional<int> parseCommandLine(int argc, const char* const* argv, Invocation& invocation);

}  // namespace velmora
