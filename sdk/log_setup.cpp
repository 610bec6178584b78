#include "sdk/log_setup.h"

#include <algorithm>

#include "base/log.h"

namespace kxorbeta_if {

void setUpLogging(unsigned level, Flags& flags, const char* version) {
    constexpr unsigned mergedBit = 0x8000;
    constexpr int truncatingFrom = 2;
    constexpr int dumpingFrom = 5;
    constexpr int mostVerbose = 9;

    logConsoleOff();
    if ((level & mergedBit) != 0) {
        flags.mergedChannels = true;
    }
    const int number = static_cast<int>(level & (mergedBit - 1));
    if (number > 0) {
        const int verbosity = std::min(number - 1, mostVerbose);
        if (verbosity >= dumpingFrom) {
            flags.rawDump = true;
        }
        logToFile(kLogFile, verbosity >= truncatingFrom, verbosity);
    }
    KX_LOG(verbosity::kInfo, "KXSDK init. ver: %s.", version);
}

}  // namespace kxorbeta_if
