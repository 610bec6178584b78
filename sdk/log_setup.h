#pragma once

#include "core/flags.h"

namespace kxorbeta_if {

inline constexpr const char* kLogFile = "kxsdk.log";  ///< in the directory that is current when logging is set up

/// Configures logging from one number. Bit 15 asks for merged multi-channel data. The 15 bits below: 0 no log file;
/// else verbosity is that number less 1, at most 9. Up to 1 the file is appended to, from 2 on truncated, and from 5 on
/// traffic is dumped. The console is always off. Logs the version at the end.
void setUpLogging(unsigned level, Flags& flags, const char* version);

}  // namespace kxorbeta_if
