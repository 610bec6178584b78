#include "session/stream_reader.h"

namespace velmora {

using protocol::DataHeader;
using protocol::FrameKind;
using protocol::kSyncWord;

std::span<std::uint8_t> StreamReader::room() {
    if (buffer_.size() - end_ < kReadRoom) {
        compact();
    }
    return std::span(buffer_).subspan(end_);
}

void StreamReader::compact() {
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    std::size_t kept = 0;
    for (std::size_t i = read_; i < readCount_; ++i) {
        if (reads_[i].end > begin_) {
            reads_[kept++] = {reads_[i].end - begin_, reads_[i].time};
        }
    }
    readCount_ = kept;
    read_ = 0;
    end_ -= begin_;
    begin_ = 0;
}

void StreamReader::dropPending(int index) {
    Pending& pending = pending_[static_cast<std::size_t>(index)];
    if (pending.size > 0) {
        ++counts_.incompleteFrames[static_cast<std::size_t>(index)];
        counts_.strayBytes += pending.size;
        pending.size = 0;
    }
}

void StreamReader::dropAllPending() {
    for (int index = 0; index < protocol::kHeadsets; ++index) {
        dropPending(index);
    }
}

void StreamReader::reset() {
    dropAllPending();
    counts_.strayBytes += end_ - begin_;
    giveUpText();
    begin_ = end_ = readCount_ = read_ = 0;
    deadline_ = kNever;
}

/// The time of the read that brought the byte before `end`.
std::int64_t StreamReader::arrivalOf(std::size_t end) {
    while (reads_[read_].end < end) {
        ++read_;
    }
    return reads_[read_].time;
}

/// The same as headerAt() where the bytes may end before the header does.
StreamReader::Found StreamReader::headerNearEnd(const std::uint8_t* bytes, std::size_t left, DataHeader& header) {
    // A header that is cut off may go on with anything that fits, so the shortest that fits is put behind it.
    std::array<std::uint8_t, protocol::kLongestHeader> padded;
    padded.fill(0);
    std::copy_n(bytes, left, padded.begin());
    if (protocol::readPlainHeader(padded.data(), header) && header.length <= left) {
        return isPossible(bytes, header) ? Found::kWhole : Found::kNone;
    }
    constexpr std::string_view kContinuations[] = {"AT+DAT0:0#", "0:0#", ":0#", "0#", "#"};
    for (const std::string_view continuation : kContinuations) {
        const std::string_view more = left < kSyncWord.size() ? continuation.substr(left) : continuation;
        if (left + more.size() > padded.size() || left + more.size() < protocol::kShortestDataFrame) {
            continue;
        }
        padded.fill(0);
        std::copy_n(bytes, left, padded.begin());
        std::copy(more.begin(), more.end(), padded.begin() + static_cast<std::ptrdiff_t>(left));
        if (protocol::readPlainHeader(padded.data(), header) && isPossible(padded.data(), header) &&
            header.length == left + more.size()) {
            return Found::kPartial;
        }
        if (left < kSyncWord.size()) {
            break;
        }
    }
    return Found::kNone;
}

/// Names of headsets may hold letters of any language; outside scans they do not come.
bool StreamReader::isTextByte(std::uint8_t byte) const {
    return (byte >= 0x20 && byte < 0x7F) || byte == '\t' || byte == '\r' || (byte >= 0x80 && scanning_);
}

/// The text at a place behind a payload: characters that end with a line end or a header, or that may still do so.
/// Binary data begins with that now and then, but not often.
StreamReader::Found StreamReader::textAt(std::size_t place) const {
    const std::span<const std::uint8_t> bytes(buffer_.data() + place, end_ - place);
    for (const auto& [text, kind] : kSelfContained) {
        if (kxorbeta_if::asText(bytes).starts_with(text)) {
            return Found::kWhole;
        }
    }
    const std::size_t end = std::min(bytes.size(), kTextLookahead);
    for (std::size_t i = 0; i < end; ++i) {
        DataHeader header;
        if (bytes[i] == '\n' || headerAt(bytes.data() + i, bytes.size() - i, header) == Found::kWhole) {
            return Found::kWhole;
        }
        if (!isTextByte(bytes[i])) {
            return Found::kNone;
        }
    }
    return end == bytes.size() ? Found::kPartial : Found::kNone;
}

bool StreamReader::holdsHeader(const std::uint8_t* bytes, std::size_t size) const {
    const std::uint8_t* const end = bytes + size;
    for (const std::uint8_t* at = bytes; at < end; ++at) {
        at = static_cast<const std::uint8_t*>(std::memchr(at, kSyncWord[0], static_cast<std::size_t>(end - at)));
        if (at == nullptr) {
            return false;
        }
        DataHeader header;
        if (headerAt(at, static_cast<std::size_t>(end - at), header) == Found::kWhole) {
            return true;
        }
    }
    return false;
}

/// Whether the payload goes on with the frame that waits, `before` bytes of `combined`, and does not rather begin with
/// one of its own. What begins like a frame of its own is one if it ends well, or if the frame that waits would not.
bool StreamReader::continues(const Payload& payload, std::span<const std::uint8_t> combined, std::size_t before) {
    const auto endsWell = [&](FrameKind kind, std::size_t start) {
        const std::size_t length = protocol::lengthOf(kind);
        if (length == 0 || length < start) {
            return false;  // no whole frame, or one that ended before the payload
        }
        const std::size_t behind = length - start;
        return behind <= payload.size &&
               (behind == payload.size || protocol::mayStartFrame(payload.bytes + behind, payload.size - behind));
    };
    if (payload.size < protocol::kShortestFrame) {
        return true;
    }
    const FrameKind own = protocol::classify(payload.bytes, payload.size);
    if (protocol::lengthOf(own) == 0 && !((own == FrameKind::kIncompleteRaw || own == FrameKind::kIncompletePost) &&
                                          protocol::mayStartFrame(payload.bytes, payload.size))) {
        return true;
    }
    return !endsWell(own, 0) && endsWell(protocol::classify(combined.data(), combined.size()), before);
}

void StreamReader::keepPending(const Payload& payload, std::size_t at) {
    while (at < payload.size && !protocol::mayStartFrame(payload.bytes + at, payload.size - at)) {
        ++counts_.strayBytes;
        ++at;
    }
    Pending& pending = pending_[static_cast<std::size_t>(payload.index)];
    pending.size = payload.size - at;
    std::copy_n(payload.bytes + at, pending.size, pending.bytes.begin());
}

TextKind StreamReader::kindOfLine(std::string_view line) const {
    if (scanning_ && protocol::looksLikeScanLine(line)) {
        return TextKind::kScanLine;
    }
    if (line.find(protocol::reply::kServiceConnected) != std::string_view::npos) {
        return TextKind::kConnected;
    }
    if (line.find(protocol::reply::kClientDisconnected) != std::string_view::npos) {
        return TextKind::kDisconnected;
    }
    if (line.find(protocol::reply::kListPrefix) != std::string_view::npos) {
        return TextKind::kList;
    }
    // Behind the remains of a text that was cut short, by a restart for one.
    for (const auto& [text, kind] : kSelfContained) {
        if (line.ends_with(text)) {
            return kind;
        }
    }
    return TextKind::kOther;
}

void StreamReader::giveUpText() {
    counts_.strayBytes += textLength_;
    textLength_ = textJoin_ = 0;
}

}  // namespace velmora
