#pragma once

#include <atomic>
#include <cstdint>

#include "base/clock.h"

namespace velmora {

using kxorbeta_if::Clock;

/// Something that threads wait for, with the system's own object behind it: once set it stays set until it is reset.
class Signal {
  public:
    /// Throws std::system_error when the system has no event left.
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    /// Any thread, and safe inside a signal handler.
    void set() noexcept;
    /// A set() that overlaps it wins or loses.
    void reset() noexcept;
    bool isSet() const noexcept { return set_.load() != 0; }
    /// Not 0 while it is set: for who looks at it now and then.
    const std::atomic<std::uint32_t>& state() const noexcept { return set_; }

  private:
    friend bool waitForEither(Signal& own, Signal* cancel, Clock::Time deadline) noexcept;

    std::atomic<std::uint32_t> set_{0};  // saves asking the system
    std::intptr_t event_;                // a descriptor or a handle
};

/// Waits until one of the signals is set, and returns then; `cancel` may be null. Resets `own` if it is what was
/// waited for. False when the deadline came first.
bool waitForEither(Signal& own, Signal* cancel, Clock::Time deadline) noexcept;

}  // namespace velmora
