#include "session/record_queue.h"

#include <algorithm>
#include <cstring>

namespace velmora {
namespace {

/// Room beyond the raw packets: a restart with 16 headsets takes 17 events, and a full line of nothing but the shortest
/// frames some hundreds of records until a host that is merely late comes back.
std::size_t extraRoom(std::size_t rawCapacity) {
    return std::max<std::size_t>(256, rawCapacity / 16);
}

}  // namespace

RecordQueue::RecordQueue(std::size_t rawCapacity)
    : rawCapacity_(rawCapacity),
      slots_(rawCapacity + extraRoom(rawCapacity)),
      records_(std::make_unique_for_overwrite<velmora_record[]>(slots_)) {}

velmora_record* RecordQueue::roomUpTo(std::size_t capacity) {
    if (filled_ - knownTaken_ >= capacity) {
        knownTaken_ = taken_.load(std::memory_order_acquire);
        if (filled_ - knownTaken_ >= capacity) {
            return nullptr;
        }
    }
    return &records_[filled_ % slots_];
}

void RecordQueue::publish() {
    if (filled_ == published_.load(std::memory_order_relaxed)) {
        return;
    }
    // In one order with the taker's request and its look at the size: one of the two sees the other.
    published_.store(filled_);
    knownTaken_ = taken_.load(std::memory_order_acquire);
    const std::size_t size = filled_ - knownTaken_;
    if (size > largest_.load(std::memory_order_relaxed)) {
        largest_.store(size, std::memory_order_relaxed);
    }
    std::size_t wanted = wanted_.load();
    if (size >= wanted && wanted_.compare_exchange_strong(wanted, kNobody)) {
        arrived_.set();
    }
}

std::size_t RecordQueue::take(velmora_record* records, std::size_t stride, std::size_t capacity) {
    const std::size_t first = taken_.load(std::memory_order_relaxed);
    const std::size_t count = std::min(published_.load(std::memory_order_acquire) - first, capacity);
    auto* to = reinterpret_cast<unsigned char*>(records);
    for (std::size_t i = 0; i < count; ++i, to += stride) {
        std::memcpy(to, &records_[(first + i) % slots_], sizeof(velmora_record));
        if (stride > sizeof(velmora_record)) {
            std::memset(to + sizeof(velmora_record), 0, stride - sizeof(velmora_record));
        }
    }
    taken_.store(first + count, std::memory_order_release);
    return count;
}

}  // namespace velmora
