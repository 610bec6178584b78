#pragma once

#include <atomic>

#include "base/spin_lock.h"

namespace kxorbeta_if {

using PostDataEntry = void (*)(void* context, int device, unsigned char value1, unsigned char value2,
                               unsigned char value3, unsigned char value4, unsigned int* values);
using RawDataEntry = void (*)(void* context, int device, int channel, int* samples, int count);
using BattInfoEntry = void (*)(void* context, int device, unsigned int level, unsigned int value);
using ResponseEntry = void (*)(void* context, int device, unsigned char command, unsigned char* frame, int length);
using EventEntry = void (*)(void* context, unsigned int code, unsigned int value, void* detail);

enum class Event : unsigned int {
    kDeviceDisconnected = 1,
    kDeviceConnected = 2,
    kDongleRestarted = 3,
    kLinkStarted = 4,
    kLinkStopped = 5,
};

/// The callbacks of the receive path, with the locks that serialise them. An entry that is null is not installed.
/// Entries may be exchanged at any time from any thread; a call that is being made still reaches the old one.
struct CallbackTable {
    std::atomic<PostDataEntry> postData{nullptr};
    std::atomic<RawDataEntry> rawData{nullptr};
    std::atomic<BattInfoEntry> battInfo{nullptr};
    std::atomic<ResponseEntry> response{nullptr};
    std::atomic<EventEntry> event{nullptr};
    std::atomic<void*> context{nullptr};

    SpinLock eventLock;     ///< held during every call of `event`
    SpinLock responseLock;  ///< held during every call of `response`

    /// Calls the event entry, if installed, under `eventLock`. `detail` lives only during the call.
    void raise(Event code, unsigned int value, void* detail) {
        if (event.load() == nullptr) {
            return;
        }
        const SpinGuard guard(eventLock);
        if (const EventEntry entry = event.load()) {
            entry(context.load(), static_cast<unsigned int>(code), value, detail);
        }
    }
};

}  // namespace kxorbeta_if
