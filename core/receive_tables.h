#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

#include "base/spin_lock.h"
#include "protocol/headset_frames.h"

namespace kxorbeta_if {

/// The packet counter expected next, for each headset and channel. Entries are single words: a host may start data
/// collection, which forgets them all, while the link thread decodes.
class PacketCounters {
  public:
    static constexpr std::uint32_t kNoneSeen = 0xFFFF;

    PacketCounters() { forgetAll(); }

    std::uint32_t expected(int device, int channel) const noexcept {
        return slot(device, channel).load(std::memory_order_relaxed);
    }

    /// `counter` was received; the one after it is expected next.
    void received(int device, int channel, std::uint32_t counter) noexcept {
        expect(device, channel, counter + 1 > 255 ? 0 : counter + 1);
    }

    void expect(int device, int channel, std::uint32_t counter) noexcept {
        slot(device, channel).store(counter, std::memory_order_relaxed);
    }

    void forgetAll() noexcept {
        for (auto& entry : entries_) {
            entry.store(kNoneSeen, std::memory_order_relaxed);
        }
    }

  private:
    using Slot = std::atomic<std::uint32_t>;

    static std::size_t position(int device, int channel) noexcept {
        return static_cast<std::size_t>(device * protocol::kChannels + channel);
    }
    Slot& slot(int device, int channel) noexcept { return entries_[position(device, channel)]; }
    const Slot& slot(int device, int channel) const noexcept { return entries_[position(device, channel)]; }

    std::array<Slot, protocol::kHeadsets * protocol::kChannels> entries_;
};

/// Payload bytes of one headset that do not make a whole frame yet. Keeps its memory, so that a stream in its stride
/// allocates nothing.
class ByteQueue {
  public:
    bool empty() const noexcept { return bytes_.empty(); }
    std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }
    void append(std::span<const std::uint8_t> more) { bytes_.insert(bytes_.end(), more.begin(), more.end()); }
    void dropFront(std::size_t count) noexcept {
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(count));
    }
    void clear() noexcept { bytes_.clear(); }
    void free() noexcept { std::vector<std::uint8_t>().swap(bytes_); }

  private:
    std::vector<std::uint8_t> bytes_;
};

/// The byte queues of all headsets. They belong to the thread that decodes; any other thread may only ask that they be
/// emptied.
class DeviceStreams {
  public:
    ByteQueue& operator[](int device) noexcept { return queues_[static_cast<std::size_t>(device)]; }

    /// The calling thread is going to decode, until release(). Empties the queues.
    void claim() noexcept {
        const SpinGuard guard(ownerLock_);
        owned_ = true;
        emptyAll();
    }

    void release() noexcept {
        const SpinGuard guard(ownerLock_);
        owned_ = false;
    }

    /// Any thread: empties the queues at once when no thread owns them; otherwise the owner does it before its next
    /// frame. Never waits for the owner, on whose thread this may well run, inside a host's callback.
    void requestEmpty() noexcept {
        const SpinGuard guard(ownerLock_);
        if (owned_) {
            emptyRequested_.store(true, std::memory_order_release);
        } else {
            emptyAll();
        }
    }

    /// Empties the queues and gives their memory back. Only while no thread owns them.
    void free() noexcept {
        const SpinGuard guard(ownerLock_);
        for (ByteQueue& queue : queues_) {
            queue.free();
        }
    }

    /// The owner, before each frame.
    void emptyIfRequested() noexcept {
        if (emptyRequested_.load(std::memory_order_acquire)) {
            emptyAll();
        }
    }

  private:
    void emptyAll() noexcept {
        emptyRequested_.store(false, std::memory_order_relaxed);
        for (ByteQueue& queue : queues_) {
            queue.clear();
        }
    }

    std::array<ByteQueue, protocol::kHeadsets> queues_;
    SpinLock ownerLock_;
    bool owned_ = false;
    std::atomic<bool> emptyRequested_{false};
};

/// What decoding remembers from block to block.
struct ReceiveTables {
    static constexpr int kWaitedForData = 5;

    PacketCounters packetCounters;
    DeviceStreams deviceStreams;
    int syncErrorState = 0;  ///< kWaitedForData after a frame had to wait for more data, else 0; decoding thread only

    /// Forgets all counters and half frames, so that the next packet of a channel reports no loss. Any thread.
    void reset() noexcept {
        packetCounters.forgetAll();
        deviceStreams.requestEmpty();
    }
};

}  // namespace kxorbeta_if
