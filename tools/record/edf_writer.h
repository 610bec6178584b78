// Writes EDF+ files that open at every moment.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "record/edf_layout.h"
#include "record/output_file.h"
#include "record/track_writer.h"

namespace velmora::record {

/// EDF+C: continuous records, the samples in 16 bits as they came.
///
/// A file is there from the first record on. Records that can still change stand at its end, filled up and marked as
/// not whole, and are written anew in their places. Strict readers refuse a file whose size and number of records
/// differ; so it grows by one write, and the next one brings the number in the header up to date. Only a program killed
/// in the microseconds of these two leaves a file that such readers refuse: it has the new record but does not count
/// it, or its last annotations are half written.
class EdfWriter final : public TrackWriter {
  public:
    /// The file is made when there is something to write. `files` must outlive this.
    EdfWriter(Files& files, std::string path, IfExists ifExists);

    void begin(const TrackHeader& header) override;
    void append(const Frames& frames) override;
    void appendMissing(std::int64_t count) override;
    void annotate(Annotation annotation) override;
    std::int64_t paddedEnd(std::int64_t end) const override;
    void commit(const Frames& open, std::span<const Annotation> openAnnotations) override;
    void finish() override;
    std::uint64_t size() const override { return made_ ? endOf(counted_) : 0; }

    const EdfLayout& layout() const { return layout_; }

  private:
    using Annotations = std::deque<Annotation>;

    std::string headerText(std::int64_t count) const;
    std::string countText(std::int64_t count) const;
    std::string timeText(std::int64_t ticks) const;
    std::string annotationText(const Annotation& annotation) const;
    void addRecord(std::vector<char>& bytes, std::int64_t number, std::span<const std::int16_t> samples,
                   Annotations& annotations) const;
    void add(std::vector<std::int16_t>& samples, const Frames& frames) const;
    void addRecords(std::vector<char>& bytes, std::int64_t& number, std::span<const std::int16_t> samples,
                    Annotations& annotations) const;
    std::uint64_t endOf(std::int64_t records) const {
        return 256 * (channels_ + 2) + static_cast<std::uint64_t>(records) * layout_.recordBytes;
    }
    void put(std::span<const char> bytes, std::int64_t records, std::int64_t count);

    Files& files_;
    const std::string path_;
    const IfExists ifExists_;
    std::unique_ptr<OutputFile> file_;

    TrackHeader header_;
    EdfLayout layout_;
    EdfRange range_;
    std::size_t channels_ = 0;
    std::size_t perRecord_ = 0;        // samples, of all channels
    std::int64_t secondFraction_ = 0;  // of the start, in ticks

    std::vector<std::int16_t> pending_;  // of records that are not written for good
    Annotations annotations_;            // likewise, in order of arrival
    std::int64_t records_ = 0;           // written for good
    std::int64_t counted_ = 0;           // as the header has it
    bool made_ = false;                  // the file has this writer's header
};

}  // namespace velmora::record
