// The virtual dongle's behaviour: requests of the host in, writes out. No thread, no clock, no port.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "dongle/account.h"
#include "dongle/data_line.h"
#include "dongle/dongle_settings.h"
#include "dongle/headset.h"
#include "dongle/host_parser.h"

namespace dongle {

/// What the host has sent.
struct HostLog {
    /// Only the newest are kept; a dongle can run for weeks.
    static constexpr std::size_t kMost = 10'000;

    std::deque<HostRequest> requests;  ///< oldest first
    std::uint64_t total = 0;           ///< how many there have been, forgotten ones included

    /// The requests after the first `seen`, as far as they are kept.
    std::vector<HostRequest> since(std::uint64_t seen) const;
    /// How many of the kept requests are texts that begin with `start`.
    std::size_t countTexts(std::string_view start) const;
};

struct Counters {
    LineCounters line;
    std::uint64_t unknownTexts = 0;  ///< texts of the host that ask for nothing known
    std::uint64_t garbageBytes = 0;  ///< bytes of the host that are neither text nor command
};

/// Not thread-safe: one thread at a time. Time never runs backwards: an earlier `now` counts as the latest one. Actions
/// take place at the latest time the engine knows; what they cause stands in `takeWrites` at once or when it is due.
/// Headsets are named by their index, the device number; an index that no headset has throws std::out_of_range.
class Engine {
  public:
    /// Throws std::invalid_argument with the reason when the settings cannot be used.
    explicit Engine(Settings settings);
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Takes bytes of the host. What is answered without delay is ready for `takeWrites` afterwards.
    void receive(std::span<const std::uint8_t> bytes, Time now);
    /// Does everything that is due by `now`, in its order.
    void advance(Time now);
    /// When there is next something to do; nothing while the dongle waits for the host alone.
    std::optional<Time> nextDue() const;
    /// The writes made since the last call, in order. Each is one write to the port.
    std::vector<Write> takeWrites();

    /// The headset joins the group by itself: report, then stream.
    void join(int index);
    /// The headset drops out: its stream ends and the dongle reports it. It comes back when its settings say so, unless
    /// the dongle is unplugged at that time.
    void disconnect(int index);
    /// The dongle restarts: every headset is gone, nothing is pending, and the boot text goes out in a write of its
    /// own.
    void restart();
    /// The port goes away for good. Nothing is written any more; whoever owns the port closes it.
    void hangUp();
    bool hungUp() const { return hungUp_; }
    /// The port goes away, and with it the dongle's power: every headset is gone and nothing is pending but timers.
    /// Nothing is written until the dongle is plugged in again; whoever owns the port gives it another one then.
    void unplug();
    /// Its boot text is over before a host can have the port open, so there is none. Does nothing after `hangUp`.
    void plug();
    bool pluggedIn() const { return !unplugged_ && !hungUp_; }
    /// How often the port has gone away.
    std::uint64_t unpluggings() const { return unpluggings_; }
    /// While silent, the dongle takes requests but sends nothing; samples of that time are lost.
    void setSilent(bool silent);
    /// Sends the list of connected headsets, unasked.
    void sendList();
    /// Sends exactly these bytes in one write, apart from everything else.
    void sendRaw(std::string_view bytes);

    /// From now on; what is already planned stays planned, and the times in `faults` are read only at the start.
    void setFaults(const FaultSettings& faults);
    void setLine(const LineSettings& line);
    void setReplies(const ReplySettings& replies) { settings_.replies = replies; }
    void setConnectFails(int index, bool fails);
    void setSampleRate(int index, int samplesPerSecond);

    const Settings& settings() const { return settings_; }
    const HostLog& log() const { return log_; }
    Counters counters() const;
    const HeadsetCounters& headsetCounters(int index) const;
    bool connected(int index) const;
    /// In the order of the settings, with the index that each has at present.
    std::span<const Headset> headsets() const { return headsets_; }
    /// Nothing unless the settings ask for it. Packets stay `waiting` in it until whoever takes the writes tells what
    /// the line has made of them.
    Account* account() { return account_ ? &*account_ : nullptr; }

  private:
    enum class Purpose { Timer, Scan, Connection, Reply };
    struct Planned {
        Purpose purpose = Purpose::Reply;
        std::function<void()> act;
    };

    void handle(const HostRequest& request);
    void handleText(std::string_view text);
    void handleCommand(const HostRequest& request);
    void scan();
    void connectGroup(std::string_view list);
    void endConnection();
    void disconnectByHost(std::string_view address);
    void disconnectAll();

    void connect(Headset& headset, Time streamStart);
    void drop(Headset& headset);
    void dropOthers(const std::vector<std::string_view>& addresses);
    void rejoin(Headset& headset);
    void powerOff();
    void reportDisconnection(const Headset& headset);
    void startTimers();
    /// Every `period` after the first time; a period of zero is once.
    void planRepeatedly(Time first, Time period, std::function<void()> act);
    void say(const std::string& text);
    void plan(Purpose purpose, Time delay, std::function<void()> act);
    void forget(Purpose purpose);

    void tick();
    void fill();
    void give(HeadsetFrame frame, Headset& headset);
    void planTick();
    Time tickInterval() const;

    Headset& at(int index);
    const Headset& at(int index) const;
    Headset* find(std::string_view address);

    Settings settings_;
    std::vector<Headset> headsets_;  // never grows: the data line and planned acts hold on to its members
    HostParser parser_;
    HostLog log_;
    std::optional<Account> account_;
    DataLine data_;
    Counters counters_;
    std::vector<Write> writes_;
    std::multimap<Time, Planned> plans_;
    Time now_{0};
    std::optional<Time> nextTick_;
    std::size_t turn_ = 0;  // which headset comes first next time, so that none starves on a full line
    bool timersStarted_ = false;
    bool silent_ = false;
    bool hungUp_ = false;
    bool unplugged_ = false;
    std::uint64_t unpluggings_ = 0;
};

}  // namespace dongle
