#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/reports.h"
#include "velmora/velmora.h"

namespace velmora {

/// What a host asks the dongle for and waits on: a scan, a connection, a disconnection. One at a time. What the dongle
/// says goes in, what has come of it comes out. Pure.
class Conversation {
  public:
    enum class Topic { kNone, kScan, kConnect, kDrop, kDropAll, kReopen };

    struct Member {
        std::string address;
        bool connected = false;
        int number = 0;
        int index = 0;
    };

    Topic topic() const { return topic_; }

    void beginScan();
    void beginConnect(std::vector<Member> members);
    void beginDrop(std::string address);
    /// One that the dongle says nothing about.
    void begin(Topic topic);
    /// The host waits no longer. If the dongle was `asked`, what it still says about that belongs to nothing, also when
    /// the same is begun again.
    void finish(bool asked);

    /// True when the host asked for that headset; the dongle says when it is done with all.
    bool connected(std::string_view address, int number, int index);
    // What the dongle says. True when the host is to look at the results.
    bool scanStarted();
    bool scanFound(const protocol::ScanFields& fields, int number);
    bool scanEnded();
    bool connectionEnded();
    bool disconnected(std::string_view address);
    /// The dongle was told to drop all headsets: with them goes whatever attempt to connect them it was still at.
    void allDropped() { connectionEndsOwed_ = 0; }
    /// Nothing more will come: the dongle restarted, the line is gone, or the handle closes.
    void brokenOff(velmora_status reason);

    // Results.
    std::optional<velmora_status> result() const { return result_; }
    const std::vector<velmora_found>& found() const { return found_; }
    const std::vector<Member>& members() const { return members_; }

  private:
    // A damaged line cannot make up headsets without end.
    static constexpr std::size_t kMostFound = 1024;

    Topic topic_ = Topic::kNone;
    std::optional<velmora_status> result_;
    std::vector<velmora_found> found_;
    std::vector<Member> members_;

    // Ends that the dongle still owes for what the host gave up.
    int scanEndsOwed_ = 0;
    int connectionEndsOwed_ = 0;
};

}  // namespace velmora
