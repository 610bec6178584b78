// What a viewer is sent, byte by byte: docs/view-protocol.md. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/velmora.h"

namespace velmora::view {

inline constexpr std::uint8_t kVersion = 1;

enum class Kind : std::uint8_t { Hello = 1, Samples, Status, Event, Processed, Skipped, Ended };

/// One WebSocket message. What it takes with it when a viewer does not get it is counted in `packets`.
struct Message {
    Kind kind;
    std::uint64_t packets = 0;
    std::vector<std::uint8_t> bytes{};
};
using SharedMessage = std::shared_ptr<const Message>;

struct HeadsetEntry {
    int number = 0;  ///< as in the records
    int index = -1;
    bool connected = true;
    std::string address;
    std::string name;
};

struct MarkEntry {
    char key = 0;
    std::string text;
};

/// What a viewer has to know first.
struct Hello {
    std::int64_t started = 0;  ///< on the records' clock
    std::int64_t utc = 0;      ///< the same moment in nanoseconds since 1970
    bool recording = false;
    bool goesOn = false;  ///< after a restart or an unplugging
    std::vector<HeadsetEntry> headsets;
    std::vector<MarkEntry> marks;
};

struct StatusEntry {
    int number = 0;
    int index = -1;
    bool connected = true;
    int channels = 0;
    int battery = -1;    ///< -1: none came
    double slowest = 0;  ///< samples per second of its slowest channel; 0: not known yet
    double fastest = 0;
    double silentSeconds = 0;
    std::uint64_t packets = 0;
    std::uint64_t lost = 0;
    std::uint64_t dropped = 0;
    std::uint64_t repeated = 0;
};

/// An event that is none of the dongle's: a mark was written into the recording.
inline constexpr std::uint8_t kMarkEvent = 100;

Message helloMessage(const Hello& hello);
Message statusMessage(std::int64_t time, std::span<const StatusEntry> headsets);
Message eventMessage(std::int64_t time, int headset, std::uint8_t code, std::string_view text);
std::uint8_t eventCode(const Message& event);
Message skippedMessage(std::uint64_t messages, std::uint64_t packets);
Message endedMessage(std::int64_t time, std::string_view text);

/// Raw packets or processed data, in order: one message for many of them.
class Batch {
  public:
    explicit Batch(Kind kind);
    void add(const velmora_record& record);
    Message take();  ///< leaves this one unusable

  private:
    Message message_;
    std::uint16_t count_ = 0;
};

/// What a viewer may send: the number of a mark of Hello that is to be written. Nothing for all other bytes.
std::optional<std::size_t> parseMarkRequest(std::span<const std::uint8_t> bytes);

}  // namespace velmora::view
