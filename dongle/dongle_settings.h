// Everything that can be set on the virtual dongle. The defaults describe an undamaged line and two headsets.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace dongle {

/// A point in the dongle's own time, counted from its start, or a span of it.
using Time = std::chrono::nanoseconds;

using namespace std::chrono_literals;

/// What the line carries at 2,000,000 baud with 8 data bits, one start and one stop bit.
inline constexpr std::uint32_t kLineBytesPerSecond = 200'000;

/// What a pseudo-terminal hands to its reader at once.
inline constexpr std::size_t kLargestBurst = 4095;

/// How a headset packs the samples of its channels into raw frames.
enum class Packing {
    Single,  ///< one channel per frame, 112 samples of it
    Multi,   ///< all channels in one frame, 112 / channels samples of each
};

struct HeadsetSettings {
    std::string address;     ///< 12 hexadecimal characters, as they stand on the line
    std::string name;        ///< as a scan shows it
    int scanFlag = 1;        ///< the number between the address and the name of a scan line
    bool advertises = true;  ///< a scan finds it while it is not connected
    int index = 1;           ///< device number in reports, data headers and command targets; 0 to 15
    int channels = 8;        ///< 1 to 16 with Packing::Single, 1 to 15 with Packing::Multi
    int sampleRate = 250;    ///< samples per second and channel; 0: no raw frames
    Packing packing = Packing::Single;
    std::uint8_t battery = 90;       ///< the value of battery frames
    std::uint8_t batteryExtra = 37;  ///< the second value of battery frames, 0 to 63, in hundreds
    Time batteryInterval = 10s;      ///< zero: no battery frames
    Time postInterval = 1s;          ///< zero: no post frames
    bool connectFails = false;       ///< a group connection does not reach it
    Time joinAfter{0};               ///< joins by itself that long after the timers start; zero: never
    Time disconnectAfter{0};         ///< drops out by itself that long after it connected; zero: never
    Time rejoinAfter{0};             ///< joins by itself that long after it dropped out; zero: never
    /// What its index is when it rejoins; the next time it has its first one again. Nothing: its index stays.
    std::optional<int> rejoinIndex{};
};

/// What a group connection does while headsets are connected.
enum class SecondGroup {
    Accept,      ///< its headsets are added; those of them that are connected begin anew
    Ignore,      ///< nothing, and gets no answer
    DropOthers,  ///< it takes the place of the first group: headsets that it does not name are dropped and reported
};

/// Which requests are answered, and how late.
struct ReplySettings {
    std::string pingText = "AT+OK";       ///< sent as it stands; empty: no answer
    std::string bootText = "Bootup";      ///< sent as it stands by a restart
    std::string disconnectReason = "19";  ///< the last field of a disconnection report
    std::string lineEnd = "\n";           ///< ends scan lines, connection reports and list replies
    std::string endLineEnd = "\r\n";      ///< ends "Finish scan", "Group connection finish" and disconnection reports
    std::vector<std::string> scanLines;   ///< sent by a scan instead of the lines made from the headsets
    Time scanDuration = 500ms;            ///< from the request to "Finish scan"; the lines spread over it
    Time connectDuration = 200ms;         ///< what each headset of a group connection takes
    Time streamDelay = 60ms;              ///< from the end of a group connection to the first samples
    Time responseDelay = 20ms;            ///< from a command to the headset's response
    Time delay{0};                        ///< comes on top of every reply and response
    std::uint8_t responseMark = 0xDD;     ///< second byte of response frames: 0xDD or 0xEE
    bool scan = true;                     ///< answer scans at all
    bool scanEnd = true;                  ///< send "Finish scan"
    bool connect = true;                  ///< answer group connections at all
    bool connectEnd = true;               ///< send "Group connection finish"
    bool disconnect = true;               ///< report a headset that the host disconnected
    bool commands = true;                 ///< headsets respond to commands
    SecondGroup secondGroup = SecondGroup::Accept;
};

/// How bytes are spread over the line.
struct LineSettings {
    std::uint32_t bytesPerSecond =
        kLineBytesPerSecond;  ///< data above that waits, then is dropped; 0: bursts alone limit it
    /// Above 0: headsets send raw frames in turn, as many as the line carries at that rate; sample rates do not count.
    std::uint32_t fillBytesPerSecond = 0;
    std::size_t largestBurst = kLargestBurst;  ///< data bytes per write, in whole frames
    Time burstInterval = 18ms;                 ///< data is gathered that long before it is written
    /// Quiet time around a burst of data. The host takes 10 ms of quiet for the end of what it reads.
    Time dataGap = 12ms;
    Time textGap = 30ms;          ///< quiet time around a text
    bool gaps = true;             ///< false: no quiet time at all, data leaves every few milliseconds
    bool dataDuringText = false;  ///< headsets stream from their own report on, and texts go out amid the data
    std::vector<std::size_t>
        textCuts;                 ///< sizes of the pieces that each text is cut into; the last piece takes the rest
    bool textCutsRandom = false;  ///< cut texts at random places instead
};

/// Damage on the way. Probabilities are 0 to 1 and are drawn from a generator with a settable start.
struct FaultSettings {
    std::uint64_t seed = 1;
    std::uint32_t loseEvery = 0;  ///< every that many-th raw frame of a headset is lost; 0: none
    double lose = 0;              ///< probability that a raw frame is lost
    double repeat = 0;            ///< probability that a raw frame is sent twice
    double corrupt = 0;           ///< probability that one byte of a frame on the line is wrong
    double split = 0;             ///< probability that a frame is cut by the end of a write
    double stray = 0;             ///< probability of stray bytes in front of a frame
    std::size_t strayMost = 16;   ///< at most that many stray bytes at once
    Time restartAfter{0};         ///< restart that long after the timers start; zero: never
    Time restartEvery{0};         ///< restarts again and again, at first after `restartAfter` or this; zero: once
    Time hangUpAfter{0};          ///< the port goes away, for good unless `replugEvery` is set; likewise
    Time replugEvery{0};          ///< unplugged again and again, at first after `hangUpAfter` or this; zero: once
    Time replugAway = 1s;         ///< how long the port stays away each time; less than `replugEvery`
    Time silenceAfter{0};         ///< the dongle says nothing any more; likewise
};

/// What `joinAfter`, the restarts, the unpluggings and `silenceAfter` count from.
enum class TimersFrom {
    Start,            ///< the dongle's own start
    FirstConnection,  ///< the end of the host's first group connection
};

struct PacketRecord;  // account.h

struct Settings {
    std::vector<HeadsetSettings> headsets;
    ReplySettings replies;
    LineSettings line;
    FaultSettings faults;
    TimersFrom timersFrom = TimersFrom::FirstConnection;
    bool account = false;  ///< keep an account of every raw packet
    /// Takes each packet of the account when nothing can happen to it any more, in the order in which they were made.
    /// Called by whoever drives the engine; it must not call the engine.
    std::function<void(const PacketRecord&)> onSettled{};
};

/// The `number`-th headset (from 1) of a default set: address A1B2C3D4E501 and so on, name XAI-01 and so on. Its index
/// is its number, and 0 for the sixteenth, because the host has room for 0 to 15.
HeadsetSettings defaultHeadset(int number);

/// `count` default headsets (0 to 16), everything else default.
Settings defaultSettings(int count);

/// What is wrong with the settings, for the person who made them; nothing when they can be used.
std::optional<std::string> problemWith(const Settings& settings);

}  // namespace dongle
