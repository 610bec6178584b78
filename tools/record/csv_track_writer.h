// Writes the time line of a headset as tables.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "record/text_file.h"
#include "record/track_writer.h"

namespace velmora::record {

/// `base`.csv has a line for each instant under the titles time,sample and the channels' labels; the field of a lost
/// sample is empty. `base`-events.csv has the annotations under onset,duration,text. Times are seconds from sample 0,
/// samples are as they came, lines are as RFC 4180 has them, numbers the same in every language of the system.
class CsvTrackWriter final : public TrackWriter {
  public:
    CsvTrackWriter(Files& files, const std::string& base, IfExists ifExists)
        : samples_(files, base + ".csv", ifExists), events_(files, base + "-events.csv", ifExists) {}

    void begin(const TrackHeader& header) override;
    void append(const Frames& frames) override;
    void appendMissing(std::int64_t count) override;
    void annotate(Annotation annotation) override;
    std::int64_t paddedEnd(std::int64_t end) const override { return end; }
    void commit(const Frames& open, std::span<const Annotation> openAnnotations) override;
    void finish() override;
    std::uint64_t size() const override { return samples_.size() + events_.size(); }

  private:
    std::string lines(const Frames& frames, std::int64_t number) const;
    std::string line(const Annotation& annotation) const;
    void appendFront(std::string& text, std::int64_t number) const;

    TextFile samples_;
    TextFile events_;
    double rate_ = 0;
    std::size_t channels_ = 0;
    std::int64_t next_ = 0;
};

}  // namespace velmora::record
