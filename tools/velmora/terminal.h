// What the program needs of the console and the operating system.
#pragma once

namespace velmora {

/// From now on Ctrl-C, a request to terminate, and the loss of the terminal or of the reader of our output are counted
/// instead of ending the program, so that the dongle can be told to drop the headset.
void catchStopSignals();
/// How many of them have come. Any thread.
int stopRequests();

struct Console {
    /// Standard output is a terminal on which lines can be redrawn.
    bool interactive = false;
    /// Columns.
    int width = 80;
};
Console consoleOfOutput();

/// Ends the process without running anything more of it: threads may be stuck inside the library.
[[noreturn]] void endProcessNow(int exitCode);

}  // namespace velmora
