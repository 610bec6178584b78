#include "record/csv_track_writer.h"

#include <array>
#include <charconv>

namespace velmora::record {

namespace {

// Microseconds: far below the time between two samples.
constexpr int kDecimals = 6;

void appendNumber(std::string& text, std::int64_t number) {
    std::array<char, 24> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    text.append(digits.data(), result.ptr);
}

}  // namespace

void CsvTrackWriter::begin(const TrackHeader& header) {
    rate_ = header.rate;
    channels_ = header.labels.size();
    next_ = 0;
    std::string title = "time,sample";
    for (const std::string& label : header.labels) {
        title += ',' + csvField(label);
    }
    samples_.begin(title + "\r\n");
    events_.begin("onset,duration,text\r\n");
}

void CsvTrackWriter::appendFront(std::string& text, std::int64_t number) const {
    appendFixed(text, static_cast<double>(number) / rate_, kDecimals);
    text += ',';
    appendNumber(text, number);
}

std::string CsvTrackWriter::lines(const Frames& frames, std::int64_t number) const {
    std::string text;
    for (std::size_t i = 0; i < frames.count(); ++i) {
        appendFront(text, number + static_cast<std::int64_t>(i));
        for (std::size_t c = 0; c < channels_; ++c) {
            text += ',';
            if ((frames.present[i] >> c & 1U) != 0) {
                appendNumber(text, frames.samples[i * channels_ + c]);
            }
        }
        text += "\r\n";
    }
    return text;
}

std::string CsvTrackWriter::line(const Annotation& annotation) const {
    std::string text;
    appendFixed(text, static_cast<double>(annotation.from) / rate_, kDecimals);
    text += ',';
    if (annotation.count >= 0) {
        appendFixed(text, static_cast<double>(annotation.count) / rate_, kDecimals);
    }
    return text + ',' + csvField(annotation.text) + "\r\n";
}

void CsvTrackWriter::append(const Frames& frames) {
    samples_.add(lines(frames, next_));
    next_ += static_cast<std::int64_t>(frames.count());
}

void CsvTrackWriter::appendMissing(std::int64_t count) {
    const std::string nothing(channels_, ',');
    for (const std::int64_t end = next_ + count; next_ < end; ++next_) {
        std::string text;
        appendFront(text, next_);
        samples_.add(text + nothing + "\r\n");
    }
}

void CsvTrackWriter::annotate(Annotation annotation) {
    events_.add(line(annotation));
}

void CsvTrackWriter::commit(const Frames& open, std::span<const Annotation> openAnnotations) {
    samples_.commit(lines(open, next_));
    std::string text;
    for (const Annotation& annotation : openAnnotations) {
        text += line(annotation);
    }
    events_.commit(text);
}

void CsvTrackWriter::finish() {
    samples_.finish();
    events_.finish();
}

}  // namespace velmora::record
