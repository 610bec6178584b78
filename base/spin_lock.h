#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

namespace kxorbeta_if {

/// Guards sections of a few pointer moves. Not re-entrant, never yields: a holder that takes it again spins for ever.
class SpinLock {
  public:
    void lock() noexcept {
        while (word_.exchange(1, std::memory_order_acquire) != 0) {
        }
    }
    void unlock() noexcept { word_.store(0, std::memory_order_release); }

  private:
    std::atomic<std::uint32_t> word_{0};
};

using SpinGuard = std::lock_guard<SpinLock>;

}  // namespace kxorbeta_if
