#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <span>
#include <vector>

#include "base/spin_lock.h"

namespace kxorbeta_if {

using Bytes = std::vector<std::uint8_t>;

/// Transmissions that wait for the link thread, first in, first out. One entry is one write to the port.
/// Any thread may use it; memory is taken and given back outside the lock, which guards pointer moves only.
class CommandQueue {
  public:
    /// Appends a copy. Never blocks on anything but the spin lock; fails only for want of memory.
    void push(std::span<const std::uint8_t> command) {
        std::list<Bytes> entry;
        entry.emplace_back(command.begin(), command.end());
        const SpinGuard guard(commandQueueLock_);
        commandQueue_.splice(commandQueue_.end(), entry);
    }

    /// Takes the front entry, if there is one.
    std::optional<Bytes> pop() {
        std::list<Bytes> entry;
        {
            const SpinGuard guard(commandQueueLock_);
            if (commandQueue_.empty()) {
                return std::nullopt;
            }
            entry.splice(entry.end(), commandQueue_, commandQueue_.begin());
        }
        return std::move(entry.front());
    }

    std::size_t size() {
        const SpinGuard guard(commandQueueLock_);
        return commandQueue_.size();
    }

    /// Drops all entries.
    void clear() {
        std::list<Bytes> entries;
        const SpinGuard guard(commandQueueLock_);
        commandQueue_.swap(entries);
    }

  private:
    SpinLock commandQueueLock_;
    std::list<Bytes> commandQueue_;
};

}  // namespace kxorbeta_if
