#pragma once

#include <atomic>

namespace kxorbeta_if {

/// The process-wide state of a connection in one-byte flags, read and written without locks from any thread.
/// `linkActive` and `ctlFraming` are set before the link thread starts, so that it never sees them clear at its start.
struct Flags {
    std::atomic<bool> recording{false};       ///< data collection is on: decoded data reaches the host
    std::atomic<bool> scanning{false};        ///< a scan has the port
    std::atomic<bool> connecting{false};      ///< a group connection has the port
    std::atomic<bool> groupConnected{false};  ///< headsets are connected
    std::atomic<bool> linkActive{false};      ///< the link thread is to run; clearing it ends the thread
    std::atomic<bool> ctlFraming{false};      ///< traffic is wrapped in the dongle's envelopes
    std::atomic<bool> linkStarted{false};     ///< the link thread is in its loop
    std::atomic<bool> rawDump{false};         ///< traffic goes to the log
    std::atomic<bool> mergedChannels{false};  ///< multi-channel packets are delivered interleaved
};

}  // namespace kxorbeta_if
