// A bounded queue between exactly two threads, neither of which ever waits for the other.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <optional>
#include <utility>

namespace velmora::view {

template <typename Item, std::size_t kSlots>
class Ring {
  public:
    /// The one thread that fills. False when there is no room; `item` is as it was then.
    bool push(Item& item) {
        const std::size_t filled = filled_.load(std::memory_order_relaxed);
        if (filled - taken_.load(std::memory_order_acquire) == kSlots) {
            return false;
        }
        slots_[filled % kSlots] = std::move(item);
        filled_.store(filled + 1, std::memory_order_release);
        return true;
    }

    /// The one thread that takes.
    std::optional<Item> pop() {
        const std::size_t taken = taken_.load(std::memory_order_relaxed);
        if (taken == filled_.load(std::memory_order_acquire)) {
            return std::nullopt;
        }
        std::optional<Item> item(std::exchange(slots_[taken % kSlots], Item{}));
        taken_.store(taken + 1, std::memory_order_release);
        return item;
    }

  private:
    std::array<Item, kSlots> slots_{};
    std::atomic<std::size_t> filled_{0};
    std::atomic<std::size_t> taken_{0};
};

}  // namespace velmora::view
