#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "session/signal.h"
#include "velmora/velmora.h"

namespace velmora {

/// The records between the thread that reads the port and the one host thread that takes them: neither ever waits for
/// the other to leave a lock. Bounded: raw packets use all room but some that is kept for everything else, and half of
/// that is for events alone, so that a host that has fallen behind still learns what happened.
class RecordQueue {  // NOLINT(clang-analyzer-optin.performance.Padding): each side has a cache line
  public:
    /// `rawCapacity`: how many raw packets it holds.
    explicit RecordQueue(std::size_t rawCapacity);

    // The side that fills: the reading thread, or whoever keeps it away meanwhile.

    /// The next record to fill in, all of whose bytes are to be written; null when there is no room for such a one.
    velmora_record* roomForRaw() { return roomUpTo(rawCapacity_); }
    velmora_record* roomForOther() { return roomUpTo(rawCapacity_ + (slots_ - rawCapacity_) / 2); }
    velmora_record* roomForEvent() { return roomUpTo(slots_); }
    /// What roomFor...() gave is filled in.
    void commit() { ++filled_; }
    /// Shows what was committed to the taker, and wakes it if that is what it waits for.
    void publish();
    /// Wakes the taker whatever it waits for.
    void wakeTaker() { arrived_.set(); }

    // The side that takes, one thread at a time.

    /// Copies up to `capacity` records out, `stride` bytes apart, and frees their room. What a host's record has beyond
    /// this library's becomes zero.
    std::size_t take(velmora_record* records, std::size_t stride, std::size_t capacity);
    /// Asks to be woken at `count` records, wants to know first whether `enough` holds by then, and waits otherwise.
    /// False when `deadline` came.
    template <typename Enough>
    bool waitFor(std::size_t count, Signal* cancel, Clock::Time deadline, Enough&& enough) {
        wanted_.store(count);
        const bool woken = enough() || waitForEither(arrived_, cancel, deadline);
        wanted_.store(kNobody);
        return woken;
    }

    // Any thread.

    std::size_t size() const {
        const std::size_t taken = taken_.load();  // first: it never passes what is published
        return published_.load() - taken;
    }
    std::size_t rawCapacity() const { return rawCapacity_; }
    std::size_t largest() const { return largest_.load(std::memory_order_relaxed); }

  private:
    static constexpr std::size_t kNobody = SIZE_MAX;

    velmora_record* roomUpTo(std::size_t capacity);

    const std::size_t rawCapacity_;
    const std::size_t slots_;
    const std::unique_ptr<velmora_record[]> records_;

    // Counts that never turn back; a record's place is its count modulo the slots. Each side has a cache line.
    alignas(64) std::size_t filled_ = 0;
    std::size_t knownTaken_ = 0;  // as far as the reading thread has looked
    std::atomic<std::size_t> published_{0};
    std::atomic<std::size_t> largest_{0};
    alignas(64) std::atomic<std::size_t> taken_{0};
    std::atomic<std::size_t> wanted_{kNobody};
    Signal arrived_;
};

}  // namespace velmora
