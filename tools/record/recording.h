// What the headsets of a dongle send, made into files.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "record/output_file.h"
#include "velmora/velmora.h"

namespace velmora::record {

class Take;
class ProcessedFile;

enum class Format { Edf, Csv };

/// Where a recording goes, from the name that the user gave. Paths are UTF-8.
struct Target {
    std::string base;  ///< without ending
    Format format = Format::Edf;

    /// `NAME.csv` means CSV; `NAME.edf` and any other name EDF+. Throws std::invalid_argument for a name that names no
    /// file: empty, "-", or a folder.
    static Target parse(std::string_view name);
};

struct Options {
    Target target;
    bool force = false;               ///< overwrite existing files
    double rate = 0;                  ///< samples per second; 0: measured
    std::string unit;                 ///< of a sample times the gain, "uV"; empty: none
    double gain = 1;                  ///< units for each step of a sample
    std::vector<std::string> labels;  ///< of the channels, in ascending order; missing ones are "ch0", "ch1" ...
};

/// Throws std::invalid_argument with a text for the user when rate, unit, gain or labels cannot be written.
void checkOptions(const Options& options);

struct Headset {
    int number = 0;  ///< as in the records
    std::string address;
    std::string name;
};

/// What velmora_start returned, and how local time differs from UTC then (localOffset of local_time.h).
struct Start {
    std::int64_t time = 0;         ///< nanoseconds on the records' clock
    std::int64_t utc = 0;          ///< nanoseconds since 1970
    std::int32_t localOffset = 0;  ///< seconds to add to UTC
};

struct HeadsetProgress {
    Headset headset;
    double seconds = 0;  ///< of its time line
    std::uint64_t packets = 0;
    std::uint64_t lost = 0;   ///< packets, by the line or by this computer
    int battery = -1;         ///< last level, -1: none came
    double measuredRate = 0;  ///< over the whole recording, 0 until there is enough
    double rate = 0;          ///< the one that the file has; 0 while it is being measured
    bool connected = true;
    std::string file;  ///< the present one, empty before there is data
};

struct Progress {
    std::vector<HeadsetProgress> headsets;
    std::uint64_t bytes = 0;  ///< of all files
};

/// Writes the files of one recording: for each headset an EDF+ or CSV file, all around them.
///
///   NAME.edf or NAME.csv     samples; NAME-ADDRESS for several headsets; NAME-2 and so on behind a gap of more than
///   ten
///                            minutes
///   NAME-events.csv          CSV only: what EDF+ has as annotations (NAME-ADDRESS-events.csv)
///   NAME-processed.csv       processed data of all headsets, when there is any
///   NAME.json                measured rates, UTC at start, counts of losses, versions
///
/// Lost samples are kFill in EDF+ and empty in CSV. Not thread-safe. Files are written inside take(), tick() and
/// finish(); these throw FileError. After that every file is whole as far as it goes; call finish() anyway.
class Recording {
  public:
    /// A text for the user, a warning mostly.
    using Notice = std::function<void(const std::string& text)>;

    /// How often tick() writes.
    static constexpr std::int64_t kTick = 500'000'000;
    /// Channels and rate are those of this time.
    static constexpr std::int64_t kFirstSeconds = 5'000'000'000;
    /// How long an unusual rate is measured before the user is asked for it.
    static constexpr std::int64_t kRateTimeout = 10'000'000'000;

    /// Claims NAME.json, and throws FileError when any of the files exists and must not be overwritten.
    ///   files    must outlive this
    ///   programVersion  stands in NAME.json, as does velmora_version() given as `libraryVersion`
    Recording(Options options, std::vector<Headset> headsets, Start start, Files& files, std::string programVersion,
              std::string libraryVersion, Notice notice);
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// What velmora_read delivered, in order. Records of other headsets are ignored.
    void take(std::span<const velmora_record> records);
    /// An annotation in every headset's file.
    void mark(std::int64_t time, const std::string& text);
    /// Brings the files up to date, when it is time. Call at least every kTick.
    void tick(std::int64_t now);
    /// Brings the files up to date and closes them. All files are closed, also when it throws (for the first that could
    /// not be written). A second call does nothing.
    void finish();

    /// Headsets whose rate is none of the usual ones: the user has to give it. The recording goes on with the measured
    /// rate; a program should end it and say so. Empty mostly.
    std::vector<std::string> unusualRates() const;

    Progress progress() const;

  private:
    std::string sidecar() const;
    Take* takeOf(int number);

    const Options options_;
    const Start start_;
    Files& files_;
    const std::string programVersion_;
    const std::string libraryVersion_;
    const Notice notice_;
    std::vector<std::unique_ptr<Take>> takes_;
    std::unique_ptr<OutputFile> sidecar_;
    std::unique_ptr<ProcessedFile> processed_;
    std::int64_t lastTick_ = 0;
    std::int64_t lastSidecar_ = 0;
    bool finished_ = false;
};

}  // namespace velmora::record
