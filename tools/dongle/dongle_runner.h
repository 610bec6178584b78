// Runs an engine on a line in real time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "dongle/dongle_engine.h"
#include "dongle/transport.h"

namespace dongle {

/// What a runner has done on the line.
struct RunnerCounters {
    std::uint64_t bytesWritten = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t bytesDropped = 0;  ///< the line was full, or nobody had it open
};

class Runner {
  public:
    /// Starts at once. Throws what Engine throws.
    Runner(Settings settings, std::unique_ptr<Transport> transport);
    /// Stops within a few hundredths of a second and closes the line.
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    /// What a host opens.
    const std::string& hostPath() const { return hostPath_; }

    /// Calls `use` with the engine, whose time is the present, and returns its result. Any thread; the dongle stands
    /// still meanwhile. `use` must not call the runner.
    template <typename Use>
    auto with(Use use) {
        const std::lock_guard lock(mutex_);
        engine_.advance(now());
        return use(engine_);
    }

    /// Closes the line; the host's port is gone when this returns. A second call does nothing.
    void hangUp();
    /// The line is closed, by `hangUp` or by a fault setting.
    bool hungUp() const { return lineClosed_; }
    RunnerCounters counters() const;

  private:
    void run();
    void queue(Write write);
    /// Writes what may be written now; returns when it wants to be called again.
    Time pump(Time time);
    Time now();

    mutable std::mutex mutex_;  // guards the engine, the clock and the counters
    Engine engine_;
    std::chrono::steady_clock::time_point lastClock_;
    Time now_{0};
    RunnerCounters counters_;
    std::condition_variable closed_;

    // Used by the thread alone once it runs.
    std::unique_ptr<Transport> transport_;
    std::deque<Write> backlog_;
    std::size_t frontWritten_ = 0;  // bytes of the first write in the backlog that the line has taken
    Time lastWrite_{0};
    Time lastGap_{0};
    std::optional<Time> fullSince_;

    std::string hostPath_;
    std::atomic<bool> lineClosed_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace dongle
