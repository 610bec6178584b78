// Where the time line of one headset is written.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::record {

/// What stands in EDF+ for a sample that is not there. A headset's own sample can have this value too; the annotations
/// tell them apart.
inline constexpr std::int16_t kFill = -32768;

/// Why samples are not there, as the texts of annotations begin.
inline constexpr std::string_view kBadLost = "BAD_lost";  ///< packets were lost while the headset was connected
inline constexpr std::string_view kBadGap = "BAD_gap";    ///< the headset was not connected
inline constexpr std::string_view kBadEdge = "BAD_edge";  ///< the file begins before the channel, or ends behind it

/// What a file is about. Sample 0 is the first one in it.
struct TrackHeader {
    double rate = 0;                  ///< samples per second
    std::vector<std::string> labels;  ///< one for each channel; ASCII, 1 to 16 characters
    std::string unit;                 ///< ASCII, up to 8 characters
    double gain = 1;
    std::string equipment;         ///< the headset
    std::int64_t utc = 0;          ///< of sample 0, nanoseconds since 1970
    std::int32_t localOffset = 0;  ///< seconds that local time is ahead of UTC
};

/// A place on the time line.
struct Annotation {
    static constexpr std::int64_t kNoDuration = -1;
    std::int64_t from = 0;  ///< sample
    std::int64_t count = kNoDuration;
    std::string text;  ///< UTF-8

    bool operator==(const Annotation&) const = default;
};

/// Instants of all channels, one after the other.
struct Frames {
    std::span<const std::int16_t> samples;   ///< channel 0 to the last of the first instant, then of the second
    std::span<const std::uint16_t> present;  ///< for each instant a bit for each channel that has its sample

    std::size_t count() const { return present.size(); }
};

class TrackWriter {
  public:
    virtual ~TrackWriter() = default;

    /// Before all else. May be called again: everything that was given is forgotten, and the next commit() gives the
    /// files another content. Throws std::invalid_argument when a file cannot say what the header says.
    virtual void begin(const TrackHeader& header) = 0;

    /// Instants that will not change any more, behind those given before.
    virtual void append(const Frames& frames) = 0;
    /// Instants without any sample, likewise.
    virtual void appendMissing(std::int64_t count) = 0;
    virtual void annotate(Annotation annotation) = 0;

    /// The file ends with this sample when `end` samples of each channel are known.
    virtual std::int64_t paddedEnd(std::int64_t end) const = 0;

    /// Writes everything: what was appended for good, and behind it what may still change, which the next call writes
    /// anew. Throws FileError; the file then ends with what was appended at the last call that did not.
    virtual void commit(const Frames& open, std::span<const Annotation> openAnnotations) = 0;
    /// Writes everything for good and closes the files.
    virtual void finish() = 0;

    /// Bytes of the files.
    virtual std::uint64_t size() const = 0;
};

}  // namespace velmora::record
