// Runs an engine on a line in real time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
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
    std::uint64_t bytesUnread = 0;   ///< written, but no host had read them when the port went
    /// How often the port went and it could not be known what was unread; counts as nothing then.
    std::uint64_t unknownRests = 0;
};

class Runner {
  public:
    /// Starts at once. Throws what Engine throws.
    Runner(Settings settings, std::unique_ptr<Transport> transport);
    /// Also what `maker` throws. It makes the first line here and each further one on the runner's thread.
    Runner(Settings settings, const LineMaker& maker);
    /// Stops within a few hundredths of a second and closes the line.
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    /// What a host opens; while the dongle is unplugged, what it opened last.
    std::string hostPath() const;

    /// Calls `use` with the engine, whose time is the present, and returns its result. Any thread; the dongle stands
    /// still meanwhile. `use` must not call the runner.
    template <typename Use>
    auto with(Use use) {
        const std::lock_guard lock(mutex_);
        engine_.advance(now());
        return use(engine_);
    }

    /// Closes the line for good; the host's port is gone when this returns. A second call does nothing.
    void hangUp();
    /// The line is closed for good, by `hangUp` or by a fault setting.
    bool hungUp() const { return hungUp_; }
    /// Pulls the dongle out; the host's port is gone when this returns. Does nothing when it is out.
    void unplug();
    /// Puts it in again, on a new line; a host can open `hostPath` when this returns. Does nothing when it is in.
    /// Throws what the maker throws, std::logic_error without a maker or after `hangUp`.
    void plug();
    /// Why the dongle, on its own timer, could not be plugged in again; empty: nothing wrong. It is out then.
    std::string problem() const;
    RunnerCounters counters() const;

  private:
    Runner(Settings settings, std::unique_ptr<Transport> transport, LineMaker maker);
    void run();
    /// Opens and closes the line as the engine is plugged in and unplugged.
    void followPort();
    void closeLine();
    void openLine();
    /// A host left, or with `gone` the whole line, and that many bytes were unread; nothing: unknown.
    void countUnread(std::optional<std::size_t> unread, bool gone);
    void queue(Write write);
    /// Writes what may be written now; returns when it wants to be called again.
    Time pump(Time time);
    Time now();

    mutable std::mutex mutex_;  // guards the engine, the clock, the counters and what follows up to `changed_`
    Engine engine_;
    std::chrono::steady_clock::time_point lastClock_;
    Time now_{0};
    RunnerCounters counters_;
    LineMaker maker_;
    std::string hostPath_;
    std::exception_ptr problem_;
    std::uint64_t unpluggings_ = 0;  // of the engine, as far as the line has followed
    std::uint64_t openings_ = 0;     // attempts to plug in again
    std::condition_variable changed_;

    // Used by the thread alone once it runs.
    std::unique_ptr<Transport> transport_;  // none while unplugged
    std::deque<Write> backlog_;
    std::size_t frontWritten_ = 0;  // bytes of the first write in the backlog that the line has taken
    Time lastWrite_{0};
    Time lastGap_{0};
    std::optional<Time> fullSince_;

    std::atomic<bool> hungUp_{false};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

}  // namespace dongle
