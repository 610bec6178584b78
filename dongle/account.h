// What has become of every raw packet, from the headset that made it to the host that read it or did not.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "dongle/dongle_settings.h"
#include "dongle/headset.h"

namespace dongle {

/// From worse to better.
enum class Outcome {
    Waiting,  ///< not decided: on its way to the line
    Lost,     ///< by a fault setting, before the line
    Dropped,  ///< not, or not wholly, put on the line; the cause tells why
    Unread,   ///< on the line as a whole, but the port went before the host had read all of it
    Damaged,  ///< on the line with a wrong byte
    Whole,    ///< on the line, and as far as the dongle can know it arrived as it was sent
};

enum class DropCause {
    None,
    QueueFull,  ///< the headsets sent more than the line carries
    LineFull,   ///< the host did not read
    NoHost,     ///< nobody had the port open
    Silent,     ///< the dongle said nothing at that time
    Gone,       ///< the headset was dropped, or the dongle restarted or was unplugged, while the packet waited
};

/// What the wrong byte of a damaged frame is.
enum class FramePart {
    None,
    Marker,     ///< "AT+DAT"
    Index,      ///< the device number
    Separator,  ///< ':' or '#'
    Length,     ///< the payload's length
    Sync,       ///< the first two bytes of the headset's frame
    Kind,       ///< the third
    Channel,    ///< the channel byte of a raw frame
    Sample,
    Counter,  ///< the packet counter of a raw frame
    Unused,   ///< the last byte of a raw frame
    Content,  ///< any other byte of another frame
};

/// The words that stand for them in a file.
const char* nameOf(Outcome outcome);
const char* nameOf(DropCause cause);
const char* nameOf(FramePart part);
const char* nameOf(FrameKind kind);

/// Which part of an undamaged envelope with a frame of that kind the byte at `at` is.
FramePart partAt(std::span<const std::uint8_t> envelope, FrameKind kind, std::size_t at);

/// One time that a packet went, or should have gone, over the line.
struct Transmission {
    Time sent{0};             ///< when the line took its last byte, in the dongle's time
    std::uint64_t end = 0;    ///< bytes that the line had taken then since the dongle started
    std::size_t taken = 0;    ///< bytes of the packet that the line took, its envelope included
    std::size_t dropped = 0;  ///< bytes that it did not take
    std::size_t unread = 0;   ///< of those taken, how many no host read: always the last ones
    DropCause cause = DropCause::None;
    std::optional<std::size_t> damagedByte{};  ///< from the first byte of the envelope
    FramePart damagedPart = FramePart::None;
};

/// One raw packet; also a frame of another kind when it was damaged, because that may cost a host its neighbours.
struct PacketRecord {
    std::size_t headset = 0;  ///< place in the settings, from 0
    int index = 0;            ///< device number at that time
    FrameKind kind = FrameKind::Raw;
    std::uint64_t number = 0;  ///< of the headset's raw packets since the dongle started, from 0; 0 for other kinds
    int channel = 0;           ///< of a single-channel packet; kAllChannels for a multi-channel one and other kinds
    std::uint8_t counter = 0;  ///< as sent in the packet
    Time produced{0};          ///< in the dongle's time
    bool lost = false;         ///< by a fault setting
    std::size_t size = 0;      ///< bytes of the envelope with the packet
    std::size_t copies = 0;    ///< how often it was to be sent: 0 when lost, 2 when repeated by a fault setting
    std::array<Transmission, 2> sent{};

    Outcome outcomeOf(std::size_t copy) const;
    /// Of the packet as a whole: the best that any of its copies met.
    Outcome outcome() const;
};

inline constexpr int kAllChannels = -1;

/// Always: produced = lost + dropped + sent + waiting, and sent = whole + damaged + unread. A repeated packet counts
/// once, as its best copy.
struct PacketTotals {
    std::uint64_t produced = 0;
    std::uint64_t waiting = 0;
    std::uint64_t lost = 0;
    std::uint64_t dropped = 0;
    std::uint64_t sent = 0;
    std::uint64_t unread = 0;
    std::uint64_t damaged = 0;
    std::uint64_t whole = 0;
    std::uint64_t repeated = 0;      ///< of those sent, how many have a second copy that was put on the line as a whole
    std::uint64_t otherDamaged = 0;  ///< damaged frames of other kinds; not among the packets

    PacketTotals& operator+=(const PacketTotals& other);
};

/// Keeps a record of each packet until nothing can happen to it any more, so that memory stays bounded. Not
/// thread-safe.
class Account {
  public:
    /// Place of the headset in the settings, and channel or kAllChannels.
    using Key = std::pair<std::size_t, int>;
    using Settled = std::function<void(const PacketRecord&)>;
    static constexpr std::uint64_t kNone = ~std::uint64_t{0};

    /// `settled` is called for each record when it is final, in the order in which the packets were made.
    explicit Account(Settled settled) : settled_(std::move(settled)) {}

    /// What is known by now, packets that are not final included.
    std::map<Key, PacketTotals> totals() const;
    PacketTotals sum() const;

    /// A packet was made. Returns what names it in the other calls.
    std::uint64_t produced(std::size_t headset, int index, const HeadsetFrame& frame, std::uint64_t number, Time now);
    void lost(std::uint64_t packet);
    void queued(std::uint64_t packet, std::size_t size, std::size_t copies);
    /// The whole copy, before any of it went to the line; also of a packet that never was queued.
    void dropped(std::uint64_t packet, std::size_t copy, DropCause cause);
    void damaged(std::uint64_t packet, std::size_t copy, std::size_t byte, FramePart part);

    /// Which bytes of a write belong to which packet.
    struct Piece {
        std::uint64_t packet = kNone;
        std::size_t copy = 0;
        std::size_t at = 0;  ///< place in the write
        std::size_t size = 0;
    };
    /// The line took the bytes from `from` to `to` of a write; it had taken `position` before.
    void taken(std::span<const Piece> pieces, std::size_t from, std::size_t to, std::uint64_t position, Time now);
    /// It will never take those from `from` on.
    void dropped(std::span<const Piece> pieces, std::size_t from, DropCause cause);
    /// A host left, or the port went, when the line had taken `position` bytes: no host will read the last `count` of
    /// them, and all others have been read.
    void portWent(std::uint64_t position, std::uint64_t count);

  private:
    PacketRecord& at(std::uint64_t packet) { return records_[static_cast<std::size_t>(packet - first_)]; }
    bool settledBy(const PacketRecord& record) const;
    void settle();
    static void count(const PacketRecord& record, PacketTotals& totals);

    std::deque<PacketRecord> records_;
    std::uint64_t first_ = 0;     // names the first of them
    std::uint64_t position_ = 0;  // bytes that the line has taken
    std::uint64_t decided_ = 0;   // of these, the ones that nothing can happen to any more
    std::map<Key, PacketTotals> totals_;
    Settled settled_;
};

/// The title of a file with one line for each copy of a packet, and those lines.
std::string accountTitle();
std::string accountLines(const PacketRecord& record, const std::string& address);

}  // namespace dongle
