// What doctor asks the system.
#pragma once

#include <string>
#include <vector>

namespace velmora::cli {

/// Names of the programs that run, as far as the system tells them; on Windows none.
std::vector<std::string> runningPrograms();

/// The name of a port that the user gave in any form, as the system's list has it.
std::string systemName(const std::string& port);

/// How to see whether the system knows the dongle at all.
std::string lookForDevice();

}  // namespace velmora::cli
