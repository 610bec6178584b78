// The time line of one headset, made whole.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "record/track_writer.h"
#include "velmora/velmora.h"

namespace velmora::record {

inline constexpr std::size_t kTrackChannels = 16;

/// Puts the samples of packets in their places, fills what is missing and tells so, and hands everything to a writer.
/// Samples stay open until all channels have come past them, or fall behind the newest ones by `horizon`.
///
/// Sample numbers are those of the records; the file's sample 0 is `origin`.
class Track {
  public:
    /// `labels` has one for each bit of `channels`, in ascending order. The writer has begun and outlives this.
    Track(TrackWriter& writer, std::uint16_t channels, std::vector<std::string> labels, std::int64_t origin,
          std::int64_t horizon);

    /// Samples of channels that this does not have, and those that come a second time or too late, are left out.
    void packet(const velmora_record& packet);
    /// The headset is not connected (any more): what is missing from here to its next packets is a gap.
    void disconnected();
    /// An annotation at a sample.
    void note(std::int64_t sample, const std::string& text);

    void commit();
    /// Writes all, with what is missing at the end.
    void finish();

    /// Behind the newest sample.
    std::int64_t end() const { return origin_ + end_; }

  private:
    struct Missing {
        std::int64_t from, to;  // of the file
        std::string_view why;
        std::uint16_t channels;
    };

    void place(std::size_t column, std::int64_t from, std::int64_t count, const std::int16_t* samples,
               std::size_t stride);
    void miss(std::size_t column, std::int64_t to);
    void settle(std::int64_t to);
    Frames open() const;
    std::vector<Annotation> texts(std::vector<Missing> missing) const;
    std::vector<Missing> missingUntil(std::int64_t end) const;

    struct Column {
        std::int64_t next = 0;  // sample of the file that comes next
        bool begun = false;
        bool gap = false;  // the headset was disconnected since the last packet
    };

    TrackWriter& writer_;
    const std::vector<std::string> labels_;
    const std::int64_t origin_;
    const std::int64_t horizon_;
    std::array<int, kTrackChannels> columnOf_;  // by channel; -1: not recorded
    std::vector<Column> columns_;

    // What is open, from base_ to end_.
    std::vector<std::int16_t> samples_;
    std::vector<std::uint16_t> present_;
    std::int64_t base_ = 0;
    std::int64_t end_ = 0;
    std::vector<Missing> missing_;  // not told for good yet
};

}  // namespace velmora::record
