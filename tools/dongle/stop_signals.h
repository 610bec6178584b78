// The user's wish to end the program.
#pragma once

namespace dongle {

/// From now on an interrupt, a request to terminate, or the loss of the terminal is noted instead of ending the
/// program.
void catchStopSignals();
/// One of them has come.
bool stopAsked();

}  // namespace dongle
