#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "base/clock.h"
#include "base/contained.h"
#include "base/on_exit.h"
#include "core/callback_table.h"
#include "core/command_queue.h"
#include "core/device_registry.h"
#include "core/flags.h"
#include "core/link_thread_watch.h"
#include "core/receive_tables.h"
#include "core/scan_working_list.h"
#include "link/port.h"

namespace kxorbeta_if {

/// Read budgets and waits. The values are required; tests shorten them.
struct Timing {
    int scanReads = 400;
    std::uint32_t scanReadTimeoutMs = 50;

    std::uint32_t connectionReadsPerSecond = 50;
    std::uint32_t connectionReadTimeoutMs = 20;

    std::uint32_t linkReadTimeoutMs = 20;
};

/// How long connecting and disconnecting wait for the end of the last link thread.
inline constexpr std::chrono::milliseconds kLinkEndWait{1000};

using ThreadStarter = std::function<std::thread(std::function<void()>)>;

/// Everything that work with one dongle needs: the port and what is known and pending beyond it. The library has one; a
/// test makes as many as it likes. It must outlive every thread that works on it.
struct Context {
    explicit Context(Port& line, Clock& time = systemClock()) : port(line), clock(time) {}

    Port& port;
    Clock& clock;
    Flags flags;
    /// Held while a scan or a connection looks whether it may have the port and takes it: of two that begin at the same
    /// moment one is refused.
    std::mutex takingThePort;
    CallbackTable callbacks;
    ScanWorkingList scanWorkingList;
    DeviceRegistry registry;
    CommandQueue commandQueue;
    ReceiveTables receiveTables;
    LinkThreadWatch linkThreads{clock};
    Timing timing;
    ThreadStarter startThread = [](std::function<void()> work) { return std::thread(std::move(work)); };

    /// Runs `work` on a thread of its own and waits for its end. What `work` throws ends it and goes no further; a
    /// thread that cannot be started throws std::system_error here.
    template <typename Work>
    void runOnThread(Work&& work) {
        std::mutex mutex;
        std::condition_variable changed;
        bool ended = false;
        clock.threadStarting();
        std::thread thread;
        try {
            thread = startThread([&] {
                const OnExit ending([&] {
                    {
                        const std::lock_guard guard(mutex);
                        ended = true;
                        clock.notify(changed);
                    }
                    clock.threadEnding();
                });
                contained(work);
            });
        } catch (...) {
            clock.threadEnding();
            throw;
        }
        {
            std::unique_lock lock(mutex);
            clock.waitFor(changed, lock, Clock::kNever, [&] { return ended; });
        }
        thread.join();
    }
};

}  // namespace kxorbeta_if
