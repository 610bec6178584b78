#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.h"
#include "session/conversation.h"
#include "session/headset_table.h"
#include "session/record_queue.h"
#include "session/stream_reader.h"
#include "session/time_line.h"
#include "velmora/velmora.h"

namespace velmora {

using Nanoseconds = std::int64_t;  ///< on the steady clock, which all records show

inline Nanoseconds nanoseconds(Clock::Time time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count();
}

/// What comes from the line, made into records for the queue, and into what is known of the dongle: its headsets, their
/// time lines, what it says to the host's requests. No thread, no clock, no port.
class Receiver {
  public:
    /// Who has to know at once. Called inside the functions below.
    class Listener {
      public:
        virtual void conversationMoved() = 0;
        virtual void responded(const velmora_record& response) = 0;
        virtual void left(int index) = 0;
        virtual void restarted() = 0;
        virtual void said(std::string_view text) = 0;

      protected:
        virtual ~Listener() = default;
    };

    /// The longest that a thread which reads all the time waits for bytes before it calls received() without any. Who
    /// comes later was held up.
    static constexpr std::chrono::milliseconds kLongestWait{100};

    Receiver(RecordQueue& queue, Listener& listener);

    /// The port was opened, for the first time or anew.
    void opened(Nanoseconds now);
    /// Where the next bytes go. May be called and written to while another thread is inside the other functions.
    std::span<std::uint8_t> room() { return reader_.room(); }
    /// `count` bytes, or none, lie at the start of room().
    void received(std::size_t count, Nanoseconds now);
    /// When received() is to be called again, if no bytes come before.
    Clock::Time due() const { return Clock::Time(std::chrono::nanoseconds(reader_.deadline())); }
    void lineIsGone(Nanoseconds now, int systemCode);

    void start(Nanoseconds now);
    void stop() { gate_ = kShut; }
    void beginScan();
    /// As Conversation::finish().
    void finishConversation(bool asked);
    /// The dongle was told to drop all headsets.
    void allDropped(Nanoseconds now);

    Conversation& conversation() { return conversation_; }
    const HeadsetTable& headsets() const { return headsets_; }

    /// All but what concerns the queue and commands.
    velmora_statistics statistics() const;
    void headsetStatistics(int number, velmora_headset_statistics& statistics) const;

    // What the reader finds.
    void frame(int index, protocol::FrameKind kind, const std::uint8_t* bytes, Nanoseconds arrival);
    void text(TextKind kind, std::string_view text, Nanoseconds arrival);

  private:
    /// What the next packet of a channel that finds room in the queue tells, of those before it that found none too.
    struct Missed {
        std::uint32_t lost = 0;
        std::uint32_t dropped = 0;
        int flags = 0;
    };
    struct Line {
        TimeLine time;
        std::array<std::uint64_t, TimeLine::kSlots> dropped{};
        std::array<Missed, TimeLine::kSlots> missed{};
    };

    static constexpr Nanoseconds kShut = std::numeric_limits<Nanoseconds>::max();

    void raw(int number, int index, const std::uint8_t* bytes, Nanoseconds arrival);
    void queueOther(const velmora_record& record, std::uint64_t& count);
    void event(int code, int number, int index, std::string_view address, std::uint32_t value = 0);
    void headsetChanged(const HeadsetTable::Change& change);
    void newConnection(int number, int index);
    void connectionReport(std::string_view text);
    void listReply(std::string_view text);
    void scanLine(std::string_view text);
    void dongleRestarted();
    Line& lineOf(int number);

    RecordQueue& queue_;
    Listener& listener_;
    StreamReader reader_;
    HeadsetTable headsets_;
    Conversation conversation_;
    std::vector<std::unique_ptr<Line>> lines_;  // by headset number; made when there is data

    Nanoseconds now_ = 0;  // when what is being handled arrived
    Nanoseconds lastReceived_ = 0;
    Nanoseconds lastStall_ = 0;
    Nanoseconds gate_ = kShut;    // data that arrived earlier is not the host's
    Nanoseconds inferUntil_ = 0;  // data of a headset that nobody reported means that it was connected all along
    bool overrun_ = false;
    velmora_statistics counts_{};
};

}  // namespace velmora
