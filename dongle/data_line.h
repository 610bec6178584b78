// The way from frames to writes: gathers frames into bursts at the rate the line carries, and does the damage asked
// for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <string_view>
#include <vector>

#include "dongle/account.h"
#include "dongle/dongle_settings.h"
#include "dongle/headset.h"

namespace dongle {

/// One write to the port.
struct Write {
    Bytes bytes;
    /// Quiet time wanted on both sides; between two writes the longer wish counts. Zero: they may follow at once.
    Time gap{0};
    /// Only while an account is kept.
    std::vector<Account::Piece> pieces{};
};

/// Chance that is the same on every platform for the same seed, which the standard distributions do not promise.
class Chance {
  public:
    explicit Chance(std::uint64_t seed) : generator_(seed) {}
    bool hits(double probability) {
        // No draw for faults that are off, so that switching one on leaves the others where they were.
        return probability > 0 && static_cast<double>(generator_() >> 11U) * 0x1p-53 < probability;
    }
    /// 0 to count - 1; `count` is at least 1.
    std::size_t below(std::size_t count) { return static_cast<std::size_t>(generator_() % count); }

  private:
    std::mt19937_64 generator_;
};

struct LineCounters {
    std::uint64_t textBytes = 0;
    std::uint64_t dataBytes = 0;   ///< envelopes and what is in them
    std::uint64_t strayBytes = 0;  ///< put between frames by a fault setting
};

class DataLine {
  public:
    /// The settings are read at every call and must outlive the line, as must the account, when there is one.
    DataLine(const LineSettings& line, const FaultSettings& faults, Account* account = nullptr);

    /// Takes a frame for sending, made at `now`. The sender must outlive the line.
    void push(HeadsetFrame frame, Headset& sender, Time now);
    /// Counts a frame that was made while nothing is said.
    void discard(const HeadsetFrame& frame, Headset& sender, Time now);
    /// Puts a text amid the data.
    void pushText(std::string_view text);
    /// Drops what still waits, of one sender or of all.
    void forget(const Headset& sender);
    void clear();
    bool empty() const { return waiting_.empty(); }

    /// How many bytes the next flush, at `now`, carries beyond what already waits.
    std::size_t room(Time now) const;
    /// Writes what the line has carried since the last flush, as far as it waits.
    void flush(Time now, std::vector<Write>& writes);

    /// The writes that make up one text outside of the data, cut as the settings say.
    void writeText(std::string_view text, std::vector<Write>& writes);

    const LineCounters& counters() const { return counters_; }
    void reseed(std::uint64_t seed) { chance_ = Chance(seed); }

  private:
    struct Waiting {
        Headset* sender = nullptr;  // none: a text
        FrameKind kind = FrameKind::Raw;
        Bytes bytes;
        std::uint64_t packet = Account::kNone;
        std::size_t copy = 0;
    };

    /// Names the frame in the account; kNone when none is kept, or not of such frames.
    std::uint64_t enter(const HeadsetFrame& frame, const Headset& sender, Time now);
    void append(Waiting& item, Time now, Write& burst, std::vector<Write>& writes);
    void damage(Waiting& item, Time now);
    void drop(const Waiting& item, DropCause cause);
    double allowance(Time now) const;
    Time dataGap() const { return line_.gaps ? line_.dataGap : Time{0}; }

    const LineSettings& line_;
    const FaultSettings& faults_;
    Account* account_;
    Chance chance_;
    LineCounters counters_;
    std::deque<Waiting> waiting_;
    std::size_t waitingBytes_ = 0;
    double allowance_ = 0;  // bytes that the line has had time for and that were not used
    Time lastFlush_{0};
};

}  // namespace dongle
