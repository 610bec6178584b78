// The time from the first packet to the last: what stream and record have in common.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cli/connection.h"
#include "cli/watch.h"

namespace velmora::cli {

struct ReceptionOptions {
    std::optional<double> seconds;         ///< nothing: until Ctrl-C
    bool keepGoing = false;                ///< connect again after a restart, an unplugging or a silence
    std::chrono::milliseconds pause{100};  ///< for how long records are collected before they are handed on
};

/// Where records go. Both may throw, which ends the reception.
struct Sink {
    std::function<void(std::span<const Record>)> take;
    std::function<void()> tick;  ///< about ten times a second or more often, whatever happens
};

class Reception {
  public:
    /// Starts the data of the headsets that the connection has.
    Reception(Connection& connection, Reporter& reporter, ReceptionOptions options);
    ~Reception();
    Reception(const Reception&) = delete;
    Reception& operator=(const Reception&) = delete;

    /// Returns when the user or the time asks for the end. Throws Failure when the data ends it.
    void run(const Sink& sink);

    const Dongle::Moment& started() const { return started_; }
    /// Those that take part.
    const std::vector<Headset>& headsets() const { return headsets_; }
    double seconds() const;
    std::vector<HeadsetView> views();

  private:
    std::optional<std::string> trouble(velmora_status status, bool more);
    std::string leftText() const;
    void connectAgain();

    Connection& connection_;
    Reporter& reporter_;
    const ReceptionOptions options_;
    const Dongle::Moment started_;
    const std::vector<Headset> headsets_;
    Watch watch_;
    std::int64_t lastTurn_;
    std::int64_t attentiveSince_;  // silence counts from there
    bool anyData_ = false;
    std::future<void> again_;
};

/// Throws Failure when a headset lost more than that share of its packets.
void checkLosses(std::span<const HeadsetView> views, double mostPercent);

}  // namespace velmora::cli
