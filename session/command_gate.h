#pragma once

#include <condition_variable>
#include <mutex>

#include "base/clock.h"
#include "session/signal.h"

namespace velmora {

/// Lets one command at a time onto the line, each at least a gap behind the end of the one before. Any thread.
class CommandGate {
  public:
    using Clock = kxorbeta_if::Clock;

    CommandGate(Clock& clock, Clock::Duration gap) : clock_(clock), gap_(gap) {}

    enum class Entry { kEntered, kTimeout, kCancelled, kClosed };

    /// Waits for the turn, if need be until `deadline`; leave() follows if it was entered. A raised `cancel`, which may
    /// be null, ends the wait.
    Entry enter(Clock::Time deadline, const Signal* cancel);
    void leave();

    /// Turns everybody away from now on.
    void close();

  private:
    Clock& clock_;
    const Clock::Duration gap_;
    std::mutex mutex_;
    std::condition_variable changed_;
    Clock::Time next_{};  // when a command may leave
    bool inside_ = false;
    bool closed_ = false;
};

}  // namespace velmora
