#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "protocol/data_header.h"
#include "protocol/headset_frames.h"
#include "protocol/reports.h"

namespace velmora {

enum class TextKind : std::uint8_t {
    kPong,
    kBootup,
    kScanFinished,
    kGroupConnectionFinished,
    kConnected,     ///< for protocol::readConnectionReport()
    kDisconnected,  ///< for protocol::readDisconnectionReport()
    kList,          ///< for protocol::readListReply()
    kScanLine,      ///< during a scan only; for protocol::readScanFields(), once every ':' has been removed
    kOther,
};

/// The texts that end with their last letter.
struct SelfContained {
    std::string_view text;
    TextKind kind;
};
inline constexpr std::array<SelfContained, 4> kSelfContained{{
    {protocol::reply::kPong, TextKind::kPong},
    {protocol::reply::kBootup, TextKind::kBootup},
    {protocol::reply::kFinishScan, TextKind::kScanFinished},
    {protocol::reply::kGroupConnectionFinish, TextKind::kGroupConnectionFinished},
}};

struct ReaderCounts {
    std::uint64_t bytes = 0;
    std::uint64_t strayBytes = 0;      ///< that belong to no text and no frame, on the line or in a headset's stream
    std::uint64_t damagedHeaders = 0;  ///< data headers that did not fit what followed
    std::uint64_t texts = 0;
    std::array<std::uint64_t, protocol::kHeadsets> incompleteFrames{};  ///< headset frames whose rest never came
};

/// Reads what a dongle sends: bytes in, whole headset frames and whole texts out, in the order of the line and wherever
/// the reads cut it. Allocates nothing; work is linear in the number of bytes, whatever they are.
///
/// Between data frames stand texts. A data header is a frame wherever it stands outside a payload, also inside an
/// unfinished text, which goes on behind the frame. A text begins at the start and behind a frame, a text, a line end
/// or a stray byte. It ends with its line feed or, for the four that may come without one ("AT+OK", "Bootup", "Finish
/// scan", "Group connection finish"), with its last letter. Payloads are never searched, with one exception: a frame
/// behind which stands neither a header nor a text nor the end of what has come, and inside which lies a whole header,
/// had a damaged header itself. The end counts once nothing more has come for a moment.
///
/// Times are nanoseconds of any one clock. Not thread-safe; belongs to the thread that reads. An object is large
/// (about 60 KiB).
///
/// A Sink is told of what was found by two functions, inside which it may call setScanning() and dropPending():
///     void frame(int index, protocol::FrameKind kind, const std::uint8_t* bytes, std::int64_t arrival);
///         A whole frame of the headset with that index, 0 to 15; kRaw, kPost, kBattery, kShortResponse or
///         kLongResponse. `bytes` are protocol::lengthOf(kind), alive during the call; `arrival` is when the last of
///         them came.
///     void text(TextKind kind, std::string_view text, std::int64_t arrival);
///         A text without its line end.
class StreamReader {
  public:
    static constexpr std::size_t kLongestPayload = 10'240;
    static constexpr std::size_t kReadRoom = 16'384;          ///< room() is at least as large
    static constexpr std::int64_t kPatience = 1'000'000'000;  ///< for the rest of a frame
    static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

    /// Where the next bytes go.
    std::span<std::uint8_t> room();

    /// `count` bytes lie at the start of room(); 0 when none came. `stalled`: the calling thread could not read for a
    /// while, so bytes may have waited and time that has passed says nothing about the line.
    template <typename Sink>
    void received(std::size_t count, std::int64_t now, bool stalled, Sink& sink);

    /// When received() must be called at the latest, with however few bytes: a frame that stays incomplete until then
    /// is damage. kNever while nothing waits.
    std::int64_t deadline() const { return deadline_; }

    /// Scan lines carry no keyword and count only while this is set.
    void setScanning(bool scanning) { scanning_ = scanning; }

    /// Gives up a headset frame whose rest has not come: the headset left, or another has its index.
    void dropPending(int index);

    /// Forgets all that waits, after the port was closed. Counts stay.
    void reset();

    const ReaderCounts& counts() const { return counts_; }

  private:
    static constexpr std::size_t kLongestFrame = protocol::kLongestHeader + kLongestPayload;
    static constexpr std::size_t kLongestText = 1024;
    static constexpr std::size_t kTextLookahead = 256;

    /// For what follows a frame that holds a whole header. Hardly any payload does, so waiting costs nothing, and a
    /// line whose next bytes are late on a busy machine must not look like one that has ended.
    static constexpr std::int64_t kDoubt = 200'000'000;

    /// What stands at a place: nothing of the kind, what may become one with more bytes, or one.
    enum class Found : std::uint8_t { kNone, kPartial, kWhole };

    /// The beginning of a headset frame, from the end of a payload, with room to see whether the next one completes it.
    struct Pending {
        std::size_t size = 0;
        std::array<std::uint8_t, 2 * protocol::kRawFrame> bytes;
    };

    /// What one read brought ends at `end` in the buffer.
    struct Read {
        std::size_t end;
        std::int64_t time;
    };

    /// A place in a payload.
    struct Payload {
        int index;
        const std::uint8_t* bytes;
        std::size_t size;
        std::size_t end;  // in the buffer
    };

    template <typename Sink>
    void parse(std::int64_t now, Sink& sink);
    template <typename Sink>
    void takePayload(const Payload& payload, Sink& sink);
    template <typename Sink>
    bool takePending(const Payload& payload, std::size_t& at, Sink& sink);
    template <typename Sink>
    void takeTextByte(std::uint8_t byte, Sink& sink);
    template <typename Sink>
    void emitText(TextKind kind, std::string_view text, Sink& sink);

    static Found headerAt(const std::uint8_t* bytes, std::size_t left, protocol::DataHeader& header) {
        if (left == 0 || *bytes != static_cast<std::uint8_t>(protocol::kSyncWord[0])) {
            return Found::kNone;
        }
        if (left < protocol::kLongestHeader) [[unlikely]] {
            return headerNearEnd(bytes, left, header);
        }
        return protocol::readPlainHeader(bytes, header) && isPossible(bytes, header) ? Found::kWhole : Found::kNone;
    }
    /// Both numbers are there and within their limits.
    static bool isPossible(const std::uint8_t* bytes, const protocol::DataHeader& header) {
        return bytes[protocol::kSyncWord.size()] != ':' && bytes[header.length - 2] != ':' &&
               header.device < protocol::kHeadsets && header.payload <= kLongestPayload;
    }
    static Found headerNearEnd(const std::uint8_t* bytes, std::size_t left, protocol::DataHeader& header);
    bool isTextByte(std::uint8_t byte) const;
    Found textAt(std::size_t place) const;
    bool holdsHeader(const std::uint8_t* bytes, std::size_t size) const;
    static bool continues(const Payload& payload, std::span<const std::uint8_t> combined, std::size_t before);
    TextKind kindOfLine(std::string_view line) const;
    void keepPending(const Payload& payload, std::size_t at);
    void dropAllPending();
    void giveUpText();
    std::int64_t arrivalOf(std::size_t end);
    void compact();

    std::array<std::uint8_t, kLongestFrame + 2 * kReadRoom> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;

    std::array<Read, 512> reads_;
    std::size_t readCount_ = 0;
    std::size_t read_ = 0;  // the one that holds what was last asked for; places are asked for in ascending order

    std::int64_t deadline_ = kNever;
    std::int64_t stallEnded_ = std::numeric_limits<std::int64_t>::min();

    std::array<char, kLongestText> text_;
    std::size_t textLength_ = 0;
    std::size_t textJoin_ = 0;  // where in it the part behind the last frame begins
    bool scanning_ = false;

    std::array<Pending, protocol::kHeadsets> pending_;
    ReaderCounts counts_;
};

template <typename Sink>
void StreamReader::received(std::size_t count, std::int64_t now, bool stalled, Sink& sink) {
    if (stalled) {
        stallEnded_ = now;
    }
    if (count > 0) {
        end_ += count;
        counts_.bytes += count;
        if (readCount_ == reads_.size()) {
            --readCount_;  // the last two reads become one
        }
        reads_[readCount_++] = {end_, now};
    }
    parse(now, sink);
}

template <typename Sink>
void StreamReader::parse(std::int64_t now, Sink& sink) {
    protocol::DataHeader header;
    Found state = Found::kNone;
    bool known = false;  // `state` and `header` are those of the present place
    while (begin_ < end_) {
        const std::uint8_t* const bytes = buffer_.data() + begin_;
        const std::size_t left = end_ - begin_;
        if (!known) {
            state = headerAt(bytes, left, header);
        }
        known = false;
        const bool complete = state == Found::kWhole && left - header.length >= header.payload;
        if (complete) {
            const std::size_t behind = begin_ + header.length + header.payload;
            protocol::DataHeader next;
            const Found nextState = headerAt(buffer_.data() + behind, end_ - behind, next);
            bool fits = nextState == Found::kWhole;
            if (!fits) [[unlikely]] {
                const Found text = nextState == Found::kNone ? textAt(behind) : nextState;
                fits = text == Found::kWhole || !holdsHeader(bytes + header.length, header.payload);
                if (!fits && text == Found::kPartial) {
                    const std::int64_t since = std::max(reads_[readCount_ - 1].time, stallEnded_);
                    if (now - since < kDoubt) {
                        deadline_ = since + kDoubt;
                        return;
                    }
                    fits = true;
                }
            }
            if (fits) [[likely]] {
                takePayload({header.device, bytes + header.length, header.payload, behind}, sink);
                textJoin_ = textLength_;
                begin_ = behind;
                state = nextState;
                header = next;
                known = true;
                continue;
            }
        } else if (state != Found::kNone) {
            const std::int64_t since = std::max(arrivalOf(begin_ + 1), stallEnded_);
            if (now - since < kPatience) {
                deadline_ = since + kPatience;
                return;
            }
        }
        if (state == Found::kWhole) {
            ++counts_.damagedHeaders;
        }
        ++begin_;
        takeTextByte(*bytes, sink);
    }
    deadline_ = kNever;
    begin_ = end_ = readCount_ = read_ = 0;
}

template <typename Sink>
void StreamReader::takePayload(const Payload& payload, Sink& sink) {
    const auto [index, bytes, size, end] = payload;
    std::size_t at = 0;
    if (pending_[static_cast<std::size_t>(index)].size > 0 && takePending(payload, at, sink)) [[unlikely]] {
        return;
    }
    while (size - at >= protocol::kShortestFrame) {
        protocol::FrameKind kind = protocol::classify(bytes + at, size - at);
        const std::size_t length = protocol::lengthOf(kind);
        if (length == 0) {
            if (protocol::mayStartFrame(bytes + at, size - at) && protocol::isIncomplete(kind)) {
                break;
            }
            ++counts_.strayBytes;
            ++at;
            continue;
        }
        std::size_t used = length;
        if (kind == protocol::FrameKind::kShortResponse && size - at == protocol::kLongResponseFrame &&
            protocol::isLongResponse(bytes + at)) {
            kind = protocol::FrameKind::kLongResponse;  // of two lengths the one that ends where the payload ends
            used = protocol::kLongResponseFrame;
        }
        sink.frame(index, kind, bytes + at, arrivalOf(end - size + at + used));
        at += used;
    }
    if (at < size) [[unlikely]] {
        keepPending(payload, at);
    }
}

/// Completes the frame that waits for this payload. True when the payload is used up; otherwise decoding goes on in it
/// at `at`.
template <typename Sink>
bool StreamReader::takePending(const Payload& payload, std::size_t& at, Sink& sink) {
    const auto [index, bytes, size, end] = payload;
    Pending& pending = pending_[static_cast<std::size_t>(index)];
    const std::size_t before = pending.size;
    const std::size_t copied = std::min(size, protocol::kRawFrame);
    const std::size_t total = before + copied;
    std::copy_n(bytes, copied, pending.bytes.begin() + static_cast<std::ptrdiff_t>(before));
    if (!continues(payload, std::span(pending.bytes).first(total), before)) {
        dropPending(index);
        return false;
    }
    pending.size = 0;
    std::size_t next = 0;
    while (next < before) {
        const std::uint8_t* const frame = pending.bytes.data() + next;
        const std::size_t left = total - next;
        protocol::FrameKind kind = left < protocol::kShortestFrame ? protocol::FrameKind::kIncompleteResponse
                                                                   : protocol::classify(frame, left);
        if (protocol::isIncomplete(kind) && protocol::mayStartFrame(frame, left)) {
            // There was room for a whole frame behind what waited, so the payload ends here.
            std::copy_n(frame, left, pending.bytes.begin());
            pending.size = left;
            return true;
        }
        if (kind == protocol::FrameKind::kShortResponse && before - next + size == protocol::kLongResponseFrame &&
            protocol::isLongResponse(frame)) {
            kind = protocol::FrameKind::kLongResponse;
        }
        const std::size_t length = protocol::lengthOf(kind);
        if (length == 0) {
            ++counts_.strayBytes;
            ++next;
            continue;
        }
        next += length;
        sink.frame(index, kind, frame, arrivalOf(end - size + (next > before ? next - before : 0)));
    }
    at = next - before;
    return at == size;
}

template <typename Sink>
void StreamReader::takeTextByte(std::uint8_t byte, Sink& sink) {
    if (byte == '\n') {
        std::string_view line(text_.data(), textLength_);
        while (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        if (!line.empty()) {
            emitText(kindOfLine(line), line, sink);
        }
        textLength_ = textJoin_ = 0;
        return;
    }
    if (byte == '\r' && textLength_ == 0) {
        return;  // of the line end behind a text that ended without one
    }
    if (!isTextByte(byte)) {
        giveUpText();
        ++counts_.strayBytes;
        return;
    }
    if (textLength_ == text_.size()) {
        giveUpText();
    }
    text_[textLength_++] = static_cast<char>(byte);
    const std::string_view whole(text_.data(), textLength_);
    for (const auto& [text, kind] : kSelfContained) {
        if (static_cast<char>(byte) != text.back()) {
            continue;
        }
        if (whole == text || whole.substr(textJoin_) == text) {
            counts_.strayBytes += textLength_ - text.size();
            emitText(kind, text, sink);
            textLength_ = textJoin_ = 0;
            return;
        }
    }
}

template <typename Sink>
void StreamReader::emitText(TextKind kind, std::string_view text, Sink& sink) {
    ++counts_.texts;
    if (kind == TextKind::kBootup) {
        dropAllPending();  // the dongle has forgotten its headsets, and what they had begun
    }
    sink.text(kind, text, arrivalOf(begin_));
}

}  // namespace velmora
