#pragma once

#include "core/context.h"
#include "core/disconnection.h"
#include "core/group_connection.h"
#include "support/log_capture.h"
#include "support/testing.h"
#include "support/virtual_clock.h"
#include "support/virtual_line.h"

namespace test {

struct EventSeen {
    unsigned code;
    unsigned value;
    std::string detail;
    bool operator==(const EventSeen&) const = default;
};

struct RawPacket {
    int device;
    int channel;
    std::vector<int> samples;
};

/// What the callbacks were called with, in order. Any thread.
class Received {
  public:
    void install(kxorbeta_if::CallbackTable& table);

    std::vector<EventSeen> events() const { return copyOf(events_); }
    std::vector<RawPacket> rawPackets() const { return copyOf(raw_); }
    bool hasEvent(unsigned code) const;
    void forget();

    std::atomic<std::size_t> rawCount{0}, postCount{0}, batteryCount{0};

  private:
    template <typename Seen>
    Seen copyOf(const Seen& seen) const {
        const std::lock_guard guard(mutex_);
        return seen;
    }

    mutable std::mutex mutex_;
    std::vector<EventSeen> events_;
    std::vector<RawPacket> raw_;
};

/// A dongle on a line, and a context of the library that has its end of the line open; all on virtual time.
class Scenario : public testing::Test {
  protected:
    Scenario();
    ~Scenario() override;

    /// Starts the dongle with `settings` and opens the port.
    void start();
    /// Connects the first headset and waits until the link thread is in its loop.
    void connect();
    /// Lets the link thread read `bytes` in one read.
    void deliver(const std::string& bytes);
    /// Makes the attempt on a dongle that would answer only after a minute. In its third second the line hangs up, or
    /// the port is closed, which must end it.
    void expectToEndWithTheLine(const std::function<bool()>& attempt);
    bool linkEnded() { return !context_.linkThreads.living(); }
    dongle::HeadsetCounters sent(int index);
    /// The host's requests so far, one line of text each.
    std::vector<std::string> requests();
    std::size_t requestCount(const std::string& beginning);

    dongle::Settings settings;
    LogCapture log;
    Received received;
    VirtualClock clock_;
    VirtualLine line_{clock_};
    kxorbeta_if::Context context_{line_, clock_};
};

}  // namespace test
