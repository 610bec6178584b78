// The user's wish to end a program.
#pragma once

namespace kxorbeta_if {

/// From now on Ctrl-C, a request to terminate, and the loss of the terminal or of the reader of our output are counted
/// instead of ending the program, so that it can leave everything in order.
///   andCall  called for each of them, inside a signal handler (on Windows: on a thread of its own); null: nothing
void catchStopSignals(void (*andCall)() = nullptr);
/// How many of them have come. Any thread.
int stopRequests();

}  // namespace kxorbeta_if
