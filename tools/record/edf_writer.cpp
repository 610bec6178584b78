#include "record/edf_writer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace velmora::record {

namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;  // of 100 ns, what common readers resolve
constexpr std::int64_t kNanosecondsPerTick = 100;
constexpr std::size_t kCountOffset = 236;
constexpr std::size_t kTimeRoom = 96;  // a record's own time at most, and a short annotation beside a long one

std::string field(std::string text, std::size_t width) {
    text.resize(width, ' ');
    return text;
}

std::string digits(std::int64_t number, std::size_t width) {
    std::string text = std::to_string(number);
    return std::string(width - std::min(width, text.size()), '0') + text;
}

struct Broken {
    int year;
    unsigned month, day;
    std::int64_t hour, minute, second;
};

Broken broken(std::int64_t seconds) {
    const std::chrono::sys_seconds moment{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date(day);
    const std::int64_t rest = (moment - day).count();
    return {int(date.year()), unsigned(date.month()), unsigned(date.day()), rest / 3600, rest / 60 % 60, rest % 60};
}

// Blanks part the subfields of a header field.
std::string subfield(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result += c > ' ' && c < 0x7F ? c : '_';
    }
    return result.empty() ? "X" : result;
}

std::string offsetText(std::int32_t seconds) {
    const std::int32_t size = std::abs(seconds);
    return std::string("UTC offset ") + (seconds < 0 ? '-' : '+') + digits(size / 3600, 2) + ':' +
           digits(size / 60 % 60, 2);
}

// Without the characters that the format gives a meaning, and not longer than a record holds.
std::string annotationWords(const std::string& text, std::size_t limit) {
    std::string result;
    for (const char c : text) {
        result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    if (result.size() > limit) {
        const auto follows = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) == 0x80; };
        while (limit > 0 && follows(result[limit])) {
            --limit;
        }
        result.resize(limit);
    }
    return result;
}

}  // namespace

EdfWriter::EdfWriter(Files& files, std::string path, IfExists ifExists)
    : files_(files), path_(std::move(path)), ifExists_(ifExists) {}

void EdfWriter::begin(const TrackHeader& header) {
    header_ = header;
    channels_ = header.labels.size();
    layout_ = edfLayout(header.rate, channels_);
    range_ = edfRange(header.gain);
    perRecord_ = static_cast<std::size_t>(layout_.samples) * channels_;
    secondFraction_ = header.utc / kNanosecondsPerTick % kTicksPerSecond;
    pending_.clear();
    annotations_.clear();
    annotate({0, Annotation::kNoDuration, offsetText(header.localOffset)});
    records_ = 0;
    counted_ = 0;
    made_ = false;
}

void EdfWriter::add(std::vector<std::int16_t>& samples, const Frames& frames) const {
    for (std::size_t i = 0; i < frames.count(); ++i) {
        for (std::size_t c = 0; c < channels_; ++c) {
            const bool there = (frames.present[i] >> c & 1U) != 0;
            samples.push_back(there ? frames.samples[i * channels_ + c] : kFill);
        }
    }
}

void EdfWriter::append(const Frames& frames) {
    add(pending_, frames);
}

void EdfWriter::appendMissing(std::int64_t count) {
    pending_.insert(pending_.end(), static_cast<std::size_t>(count) * channels_, kFill);
}

void EdfWriter::annotate(Annotation annotation) {
    annotations_.push_back(std::move(annotation));
}

std::int64_t EdfWriter::paddedEnd(std::int64_t end) const {
    return (end + layout_.samples - 1) / layout_.samples * layout_.samples;
}

std::string EdfWriter::headerText(std::int64_t count) const {
    static constexpr std::array kMonths{"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                        "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};
    const Broken start = broken(header_.utc / 1'000'000'000 + header_.localOffset);
    const std::string day = digits(start.day, 2);
    const std::size_t signals = channels_ + 1;
    std::string text = field("0", 8);
    text += field("X X X X", 80);
    text += field("Startdate " + day + '-' + kMonths[start.month - 1] + '-' + digits(start.year, 4) + " X X " +
                      subfield(header_.equipment),
                  80);
    text += day + '.' + digits(start.month, 2) + '.' + digits(start.year % 100, 2);
    text += digits(start.hour, 2) + '.' + digits(start.minute, 2) + '.' + digits(start.second, 2);
    text += field(std::to_string(256 * (signals + 1)), 8);
    text += field("EDF+C", 44);
    text += countText(count);
    text += field(layout_.recordSeconds, 8);
    text += field(std::to_string(signals), 4);

    // Field by field, and in each the signals one after the other, the annotations last.
    const auto each = [&](auto&& ofChannel, const std::string& ofAnnotations, std::size_t width) {
        for (std::size_t c = 0; c < channels_; ++c) {
            text += field(ofChannel(c), width);
        }
        text += field(ofAnnotations, width);
    };
    const auto all = [](const std::string& value) { return [&value](std::size_t) { return value; }; };
    const std::string none;
    each([&](std::size_t c) { return header_.labels[c]; }, "EDF Annotations", 16);
    each(all(none), none, 80);
    each(all(header_.unit), none, 8);
    each(all(range_.minText), "-1", 8);
    each(all(range_.maxText), "1", 8);
    each(all("-32768"), "-32768", 8);
    each(all("32767"), "32767", 8);
    each(all(none), none, 80);
    each(all(std::to_string(layout_.samples)), std::to_string(layout_.annotationBytes / 2), 8);
    each(all(none), none, 32);
    return text;
}

std::string EdfWriter::countText(std::int64_t count) const {
    return field(std::to_string(count), kEdfNumberWidth);
}

std::string EdfWriter::timeText(std::int64_t ticks) const {
    std::string text = std::to_string(ticks / kTicksPerSecond);
    if (const std::int64_t rest = ticks % kTicksPerSecond; rest != 0) {
        text += '.' + digits(rest, 7);
        text.erase(text.find_last_not_of('0') + 1);
    }
    return text;
}

std::string EdfWriter::annotationText(const Annotation& annotation) const {
    const auto ticks = [this](std::int64_t samples) {
        const std::int64_t whole = samples / layout_.samples;
        const std::int64_t rest = samples % layout_.samples;
        return whole * layout_.recordTicks +
               std::llround(static_cast<double>(rest) * static_cast<double>(layout_.recordTicks) /
                            static_cast<double>(layout_.samples));
    };
    const std::int64_t from = ticks(std::max(annotation.from, std::int64_t{0}));
    std::string text = '+' + timeText(secondFraction_ + from);
    if (annotation.count >= 0) {
        text += kEdfDuration + timeText(ticks(annotation.from + annotation.count) - from);
    }
    text += kEdfEnd;
    text += annotationWords(annotation.text, layout_.annotationBytes - kTimeRoom - text.size() - 2);
    text += kEdfEnd;
    text += '\0';
    return text;
}

void EdfWriter::addRecord(std::vector<char>& bytes, std::int64_t number, std::span<const std::int16_t> samples,
                          Annotations& annotations) const {
    for (std::size_t c = 0; c < channels_; ++c) {
        for (std::size_t at = c; at < samples.size(); at += channels_) {
            const auto value = static_cast<std::uint16_t>(samples[at]);
            bytes.push_back(static_cast<char>(value & 0xFFU));
            bytes.push_back(static_cast<char>(value >> 8U));
        }
    }
    std::string text = '+' + timeText(secondFraction_ + number * layout_.recordTicks);
    text += kEdfEnd;
    text += kEdfEnd;
    text += '\0';
    while (!annotations.empty()) {
        const std::string next = annotationText(annotations.front());
        if (text.size() + next.size() > layout_.annotationBytes) {
            break;
        }
        text += next;
        annotations.pop_front();
    }
    text.resize(layout_.annotationBytes, '\0');
    bytes.insert(bytes.end(), text.begin(), text.end());
}

void EdfWriter::addRecords(std::vector<char>& bytes, std::int64_t& number, std::span<const std::int16_t> samples,
                           Annotations& annotations) const {
    for (; !samples.empty(); samples = samples.subspan(perRecord_)) {
        addRecord(bytes, number++, samples.first(perRecord_), annotations);
    }
}

void EdfWriter::commit(const Frames& open, std::span<const Annotation> openAnnotations) {
    const std::size_t whole = pending_.size() / perRecord_ * perRecord_;
    std::vector<char> bytes;
    std::int64_t number = records_;
    Annotations left = annotations_;
    addRecords(bytes, number, std::span(pending_).first(whole), left);
    const std::int64_t records = number;

    // Behind these what can still change, filled up to a whole record.
    std::vector<std::int16_t> rest(pending_.begin() + static_cast<std::ptrdiff_t>(whole), pending_.end());
    Annotations restAnnotations(openAnnotations.begin(), openAnnotations.end());
    restAnnotations.insert(restAnnotations.end(), left.begin(), left.end());
    add(rest, open);
    rest.resize((rest.size() + perRecord_ - 1) / perRecord_ * perRecord_, kFill);
    addRecords(bytes, number, rest, restAnnotations);

    if (number == 0) {
        return;
    }
    put(bytes, records, number);
    records_ = records;
    annotations_ = std::move(left);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(whole));
}

void EdfWriter::put(std::span<const char> bytes, std::int64_t records, std::int64_t count) {
    if (!made_ || records_ == 0) {
        const std::string header = headerText(count);
        std::vector<char> content(header.begin(), header.end());
        content.insert(content.end(), bytes.begin(), bytes.end());
        if (file_) {
            file_->replace(content);
        } else {
            file_ = files_.create(path_, content, ifExists_);
        }
        made_ = true;
    } else {
        try {
            // Annotations move to later records as earlier ones become final, so the later ones are written first:
            // better twice for a moment than not at all.
            const std::size_t settled = static_cast<std::size_t>(endOf(records) - endOf(records_));
            file_->write(endOf(records), bytes.subspan(settled));
            file_->write(endOf(records_), bytes.first(settled));
            if (count != counted_) {
                file_->write(kCountOffset, countText(count));
            }
        } catch (const FileError&) {
            // Half a record is of no use to anybody, and one that is not counted makes readers refuse the file.
            try {
                file_->truncate(endOf(counted_));
            } catch (const FileError&) {
            }
            throw;
        }
    }
    counted_ = count;
}

void EdfWriter::finish() {
    pending_.resize((pending_.size() + perRecord_ - 1) / perRecord_ * perRecord_, kFill);
    // Annotations that found no room so far get records of their own.
    for (;;) {
        std::vector<char> bytes;
        std::int64_t number = records_;
        Annotations left = annotations_;
        addRecords(bytes, number, pending_, left);
        if (left.empty()) {
            break;
        }
        annotations_.push_front({number * layout_.samples, layout_.samples, std::string(kBadEdge)});
        pending_.resize(pending_.size() + perRecord_, kFill);
    }
    commit({}, {});
    if (!file_) {
        return;
    }
    file_->sync();
    file_->close();
    file_.reset();
}

}  // namespace velmora::record
