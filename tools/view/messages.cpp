#include "view/messages.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace velmora::view {
namespace {

constexpr std::size_t kCountPlace = 2;  // of the header's count of entries
constexpr std::size_t kHeaderSize = 16;

/// Puts numbers behind each other, the lowest byte first.
class Writer {
  public:
    explicit Writer(std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}

    template <typename Number>
    Writer& put(Number number) {
        auto rest = static_cast<std::uint64_t>(number);
        for (std::size_t i = 0; i < sizeof number; ++i, rest >>= 8) {
            bytes_.push_back(static_cast<std::uint8_t>(rest));
        }
        return *this;
    }
    Writer& real(double number) { return put(std::bit_cast<std::uint32_t>(static_cast<float>(number))); }
    /// Cut to `size` bytes with at least one zero behind it, and never inside of a letter.
    Writer& text(std::string_view text, std::size_t size) {
        std::size_t length = std::min(text.size(), size - 1);
        while (length < text.size() && length > 0 && (static_cast<std::uint8_t>(text[length]) & 0xC0U) == 0x80U) {
            --length;
        }
        bytes_.insert(bytes_.end(), text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length));
        return zeros(size - length);
    }
    Writer& zeros(std::size_t count) {
        bytes_.insert(bytes_.end(), count, 0);
        return *this;
    }

  private:
    std::vector<std::uint8_t>& bytes_;
};

/// The header that every message begins with.
Message begin(Kind kind, std::size_t count, std::int64_t time) {
    Message message{kind};
    Writer(message.bytes)
        .put(kVersion)
        .put(static_cast<std::uint8_t>(kind))
        .put(static_cast<std::uint16_t>(count))
        .zeros(4)
        .put(time);
    return message;
}

}  // namespace

Message helloMessage(const Hello& hello) {
    Message message = begin(Kind::Hello, hello.headsets.size(), hello.started);
    Writer writer(message.bytes);
    writer.put(hello.utc)
        .put(static_cast<std::uint16_t>((hello.recording ? 1 : 0) | (hello.goesOn ? 2 : 0)))
        .put(static_cast<std::uint16_t>(hello.marks.size()))
        .zeros(4);
    for (const HeadsetEntry& headset : hello.headsets) {
        writer.put(static_cast<std::int16_t>(headset.number))
            .put(static_cast<std::int16_t>(headset.index))
            .put(static_cast<std::uint8_t>(headset.connected ? 1 : 0))
            .zeros(3)
            .text(headset.address, 16)
            .text(headset.name, 56);
    }
    for (const MarkEntry& mark : hello.marks) {
        writer.put(static_cast<std::uint8_t>(mark.key)).zeros(7).text(mark.text, 64);
    }
    return message;
}

Message statusMessage(std::int64_t time, std::span<const StatusEntry> headsets) {
    Message message = begin(Kind::Status, headsets.size(), time);
    Writer writer(message.bytes);
    for (const StatusEntry& headset : headsets) {
        constexpr double kMostSilence = 4e6;  // seconds; as milliseconds they fit
        writer.put(static_cast<std::int16_t>(headset.number))
            .put(static_cast<std::int16_t>(headset.index))
            .put(static_cast<std::uint8_t>(headset.connected ? 1 : 0))
            .put(static_cast<std::uint8_t>(headset.channels))
            .put(static_cast<std::int16_t>(headset.battery))
            .real(headset.slowest)
            .real(headset.fastest)
            .put(static_cast<std::uint32_t>(std::min(headset.silentSeconds, kMostSilence) * 1000))
            .zeros(4)
            .put(headset.packets)
            .put(headset.lost)
            .put(headset.dropped)
            .put(headset.repeated)
            .zeros(8);
    }
    return message;
}

Message eventMessage(std::int64_t time, int headset, std::uint8_t code, std::string_view text) {
    Message message = begin(Kind::Event, 1, time);
    Writer(message.bytes).put(static_cast<std::int16_t>(headset)).put(code).zeros(5).text(text, 72);
    return message;
}

std::uint8_t eventCode(const Message& event) {
    return event.bytes[kHeaderSize + sizeof(std::int16_t)];
}

Message skippedMessage(std::uint64_t messages, std::uint64_t packets) {
    Message message = begin(Kind::Skipped, 0, 0);
    Writer(message.bytes).put(messages).put(packets);
    return message;
}

Message endedMessage(std::int64_t time, std::string_view text) {
    Message message = begin(Kind::Ended, 0, time);
    Writer(message.bytes).text(text, 240);
    return message;
}

Batch::Batch(Kind kind) : message_(begin(kind, 0, 0)) {}

void Batch::add(const velmora_record& record) {
    Writer writer(message_.bytes);
    if (message_.kind == Kind::Samples) {
        constexpr std::size_t kRoom = std::size(decltype(record.samples){});
        const std::size_t channels = std::clamp<std::size_t>(record.channels, 1, kRoom);
        const std::size_t count = std::min<std::size_t>(record.count, kRoom / channels);
        writer.put(record.sample)
            .put(record.time)
            .put(record.lost)
            .put(record.dropped)
            .put(record.headset)
            .put(static_cast<std::uint8_t>(record.channel))
            .put(static_cast<std::uint8_t>(channels))
            .put(static_cast<std::uint16_t>(count))
            .put(record.flags);
        for (std::size_t i = 0; i < channels * count; ++i) {
            writer.put(record.samples[i]);
        }
        ++message_.packets;
    } else {
        writer.put(record.time).put(record.headset);
        for (std::size_t i = 0; i < 5; ++i) {
            writer.put(record.bytes[i]);
        }
        writer.zeros(1);
        for (const std::uint32_t value : record.values) {
            writer.put(value);
        }
    }
    ++count_;
}

Message Batch::take() {
    message_.bytes[kCountPlace] = static_cast<std::uint8_t>(count_);
    message_.bytes[kCountPlace + 1] = static_cast<std::uint8_t>(count_ >> 8U);
    return std::move(message_);
}

std::optional<std::size_t> parseMarkRequest(std::span<const std::uint8_t> bytes) {
    constexpr std::uint8_t kMark = 1;
    if (bytes.size() != 4 || bytes[0] != kVersion || bytes[1] != kMark) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(bytes[2]) | static_cast<std::size_t>(bytes[3]) << 8U;
}

}  // namespace velmora::view
