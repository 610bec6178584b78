#include "record/edf_reader.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <optional>
#include <string_view>

#include "record/edf_layout.h"

namespace velmora::record {

namespace {

constexpr std::size_t kFixedHeader = 256;
constexpr std::size_t kSignalHeader = 256;
constexpr std::size_t kMostSignals = 4096;
constexpr std::size_t kLargestRecord = 1U << 28U;
constexpr std::string_view kAnnotationLabel = "EDF Annotations";

std::string_view trimmed(std::string_view text) {
    const std::size_t end = text.find_last_not_of(std::string_view(" \0", 2));
    text = text.substr(0, end == std::string_view::npos ? 0 : end + 1);
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string_view::npos ? std::string_view() : text.substr(begin);
}

std::optional<double> number(std::string_view text) {
    text = trimmed(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    double value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

// Takes what is in front of the delimiter.
std::optional<std::string_view> cut(std::string_view& text, char delimiter) {
    const std::size_t end = text.find(delimiter);
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view front = text.substr(0, end);
    text.remove_prefix(end + 1);
    return front;
}

/// The fields of a header, one after the other.
class Fields {
  public:
    explicit Fields(std::string_view text) : text_(text) {}

    std::string_view text(std::size_t width) {
        const std::string_view field = text_.substr(0, width);
        text_.remove_prefix(width);
        return trimmed(field);
    }
    double number(std::size_t width, const char* what, double least, double most) {
        const auto value = record::number(text(width));
        if (!value || *value < least || *value > most) {
            throw EdfError(std::string("this is no EDF file: ") + what + " is not a number that can be");
        }
        return *value;
    }

  private:
    std::string_view text_;
};

// The annotations that a record's bytes hold. The first empty one, the record's own time, is left out.
void readAnnotations(std::string_view text, std::vector<EdfAnnotation>& annotations) {
    while (auto list = cut(text, '\0')) {
        auto front = cut(*list, kEdfEnd);
        if (!front) {
            continue;
        }
        const std::size_t mark = front->find(kEdfDuration);
        const auto onset = number(front->substr(0, mark));
        const auto duration = mark == std::string_view::npos ? 0.0 : number(front->substr(mark + 1));
        if (!onset || !duration) {
            continue;
        }
        while (const auto words = cut(*list, kEdfEnd)) {
            if (!words->empty()) {
                annotations.push_back({*onset, *duration, std::string(*words)});
            }
        }
    }
}

// When the first record begins, from its own time.
double firstOnset(std::string_view text) {
    const auto front = cut(text, kEdfEnd);
    return front ? number(*front).value_or(0) : 0;
}

}  // namespace

EdfReader::EdfReader(const std::string& path) {
    const std::filesystem::path where(std::u8string(path.begin(), path.end()));
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(where, error);
    file_.open(where, std::ios::binary);
    if (error || !file_) {
        throw EdfError(path + " cannot be opened; is the name right?");
    }

    std::string text(kFixedHeader, '\0');
    file_.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file_ || trimmed(std::string_view(text).substr(0, 8)) != "0") {
        throw EdfError(path + " is no EDF file: it does not begin as one");
    }
    Fields fixed(text);
    fixed.text(8 + 80 + 80);
    startDate_ = fixed.text(8);
    startTime_ = fixed.text(8);
    headerSize_ = static_cast<std::uint64_t>(fixed.number(8, "the size of its header", 512, 99'999'999));
    if (fixed.text(44) == "EDF+D") {
        throw EdfError(path + " is not continuous (EDF+D); pictures are made of continuous files");
    }
    const double records = fixed.number(8, "its number of records", -1, 99'999'999);
    recordSeconds_ = fixed.number(8, "the duration of its records", 1e-7, 1e7);
    const auto count = static_cast<std::size_t>(fixed.number(4, "its number of signals", 1, kMostSignals));
    if (headerSize_ != kFixedHeader + count * kSignalHeader || headerSize_ > size) {
        throw EdfError(path + " is no EDF file: its header is not as long as it says");
    }

    text.assign(count * kSignalHeader, '\0');
    file_.read(text.data(), static_cast<std::streamsize>(text.size()));
    // Field by field, and in each the signals one after the other.
    std::vector<EdfSignal> all(count);
    Fields fields(text);
    for (EdfSignal& signal : all) {
        signal.label = fields.text(16);
    }
    for (std::size_t i = 0; i < count; ++i) {
        fields.text(80);
    }
    for (EdfSignal& signal : all) {
        signal.unit = fields.text(8);
    }
    for (EdfSignal& signal : all) {
        signal.physicalMin = fields.number(8, "a physical minimum", -1e8, 1e8);
    }
    for (EdfSignal& signal : all) {
        signal.physicalMax = fields.number(8, "a physical maximum", -1e8, 1e8);
    }
    for (EdfSignal& signal : all) {
        signal.digitalMin = static_cast<int>(fields.number(8, "a digital minimum", -32768, 32767));
    }
    for (EdfSignal& signal : all) {
        signal.digitalMax = static_cast<int>(fields.number(8, "a digital maximum", -32768, 32767));
    }
    for (std::size_t i = 0; i < count; ++i) {
        fields.text(80);
    }
    for (EdfSignal& signal : all) {
        signal.samplesInRecord = static_cast<std::size_t>(fields.number(8, "a number of samples", 1, 99'999'999));
    }

    std::size_t at = 0;
    for (EdfSignal& signal : all) {
        const std::size_t bytes = 2 * signal.samplesInRecord;
        if (signal.label == kAnnotationLabel) {
            annotationStretches_.push_back({at, bytes});
        } else {
            if (signal.digitalMax <= signal.digitalMin) {
                throw EdfError(path + " cannot be shown: the digital range of " + signal.label + " is empty");
            }
            sampleStretches_.push_back({at, bytes});
            signals_.push_back(std::move(signal));
        }
        at += bytes;
        if (at > kLargestRecord) {
            throw EdfError(path + " is no EDF file: its records are larger than can be");
        }
    }
    bytes_.resize(at);
    records_ = (size - headerSize_) / at;
    if (records >= 0) {
        records_ = std::min(records_, static_cast<std::uint64_t>(records));
    }
}

std::span<const char> EdfReader::bytes(std::uint64_t number) {
    file_.clear();
    file_.seekg(static_cast<std::streamoff>(headerSize_ + number * bytes_.size()));
    file_.read(bytes_.data(), static_cast<std::streamsize>(bytes_.size()));
    if (number >= records_ || !file_) {
        throw EdfError("a record of the file cannot be read");
    }
    return bytes_;
}

std::span<const std::int16_t> EdfReader::record(std::uint64_t number) {
    const std::span<const char> from = bytes(number);
    samples_.clear();
    for (const Stretch& stretch : sampleStretches_) {
        for (std::size_t at = stretch.at; at < stretch.at + stretch.size; at += 2) {
            const auto low = static_cast<unsigned char>(from[at]);
            const auto high = static_cast<unsigned char>(from[at + 1]);
            samples_.push_back(static_cast<std::int16_t>(low | high << 8U));
        }
    }
    return samples_;
}

std::vector<EdfAnnotation> EdfReader::annotations() {
    std::vector<EdfAnnotation> result;
    if (annotationStretches_.empty()) {
        return result;
    }
    double start = 0;
    for (std::uint64_t number = 0; number < records_; ++number) {
        const std::span<const char> from = bytes(number);
        for (const Stretch& stretch : annotationStretches_) {
            const std::string_view text(from.data() + stretch.at, stretch.size);
            if (number == 0 && &stretch == &annotationStretches_.front()) {
                start = firstOnset(text);
            }
            readAnnotations(text, result);
        }
    }
    for (EdfAnnotation& annotation : result) {
        annotation.onset -= start;
    }
    std::stable_sort(result.begin(), result.end(),
                     [](const EdfAnnotation& a, const EdfAnnotation& b) { return a.onset < b.onset; });
    return result;
}

}  // namespace velmora::record
