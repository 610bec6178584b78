#include "record/recording.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "record/edf_layout.h"
#include "record/json_text.h"
#include "record/take.h"
#include "record/text_file.h"
#include "record/track_writer.h"

namespace velmora::record {

namespace {

// The rest of the files carries what must not be lost.
constexpr std::int64_t kSidecar = 5'000'000'000;
constexpr std::size_t kLongestLabel = 16;
constexpr std::size_t kLongestUnit = 8;
constexpr double kGreatestRate = 100'000;

constexpr std::string_view kProcessedTitle =
    "time,headset,value1,value2,value3,value4,selector,"
    "number1,number2,number3,number4,number5,number6,number7,number8\r\n";

bool isPrintable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

bool endsWith(std::string_view text, std::string_view ending) {
    if (text.size() < ending.size()) {
        return false;
    }
    return std::equal(ending.begin(), ending.end(), text.end() - static_cast<std::ptrdiff_t>(ending.size()),
                      [](char a, char b) { return a == b || (b >= 'A' && b <= 'Z' && a == b - 'A' + 'a'); });
}

}  // namespace

Target Target::parse(std::string_view name) {
    Target target;
    target.base = name;
    for (const auto& [ending, format] : {std::pair{".edf", Format::Edf}, std::pair{".csv", Format::Csv}}) {
        if (endsWith(name, ending)) {
            target.base.resize(name.size() - 4);
            target.format = format;
        }
    }
    if (name.empty() || name == "-") {
        throw std::invalid_argument("a recording needs the name of a file; it cannot be written to standard output");
    }
    if (target.base.empty() || target.base.back() == '/' || target.base.back() == '\\') {
        throw std::invalid_argument(std::string(name) + " names no file; add a name behind the folder");
    }
    return target;
}

void checkOptions(const Options& options) {
    if (options.rate != 0 && !(options.rate >= 1 && options.rate <= kGreatestRate)) {
        throw std::invalid_argument("a rate must lie between 1 and 100000 samples per second");
    }
    (void)edfRange(options.gain);
    if (options.unit.size() > kLongestUnit || !isPrintable(options.unit)) {
        throw std::invalid_argument("a unit may have up to 8 characters of ASCII, such as uV");
    }
    if (options.labels.size() > kTrackChannels) {
        throw std::invalid_argument("a headset has 16 channels at most");
    }
    for (auto label = options.labels.begin(); label != options.labels.end(); ++label) {
        if (label->empty() || label->size() > kLongestLabel || !isPrintable(*label)) {
            throw std::invalid_argument("the label \"" + *label + "\" must have 1 to 16 characters of ASCII");
        }
        if (std::find(options.labels.begin(), label, *label) != label) {
            throw std::invalid_argument("the label \"" + *label + "\" is given twice");
        }
    }
}

/// NAME-processed.csv, made with the first line.
class ProcessedFile {
  public:
    ProcessedFile(Files& files, std::string path, IfExists ifExists) : file_(files, std::move(path), ifExists) {
        file_.begin(std::string(kProcessedTitle));
    }

    void add(const velmora_record& record, const Headset& headset, double seconds) {
        std::string line;
        appendFixed(line, seconds, 6);
        line += ',' + csvField(headset.address);
        for (std::size_t i = 0; i < 5; ++i) {
            line += ',' + std::to_string(record.bytes[i]);
        }
        for (const std::uint32_t value : record.values) {
            line += ',' + std::to_string(value);
        }
        file_.add(line + "\r\n");
        used_ = true;
    }
    void commit() {
        if (used_) {
            file_.commit();
        }
    }
    void finish() {
        if (used_) {
            file_.finish();
        }
    }
    std::uint64_t size() const { return file_.size(); }

  private:
    TextFile file_;
    bool used_ = false;
};

Recording::Recording(Options options, std::vector<Headset> headsets, Start start, Files& files,
                     std::string programVersion, std::string libraryVersion, Notice notice)
    : options_(std::move(options)),
      start_(start),
      files_(files),
      programVersion_(std::move(programVersion)),
      libraryVersion_(std::move(libraryVersion)),
      notice_(std::move(notice)) {
    checkOptions(options_);
    const IfExists ifExists = options_.force ? IfExists::Overwrite : IfExists::Refuse;
    const std::string& base = options_.target.base;
    for (Headset& headset : headsets) {
        const std::string name = headsets.size() == 1 ? base : base + '-' + headset.address;
        takes_.push_back(std::make_unique<Take>(options_, std::move(headset), start_, files_, name, notice_));
        takes_.back()->check();
    }
    const std::string processed = base + "-processed.csv";
    files_.check(processed, ifExists);
    processed_ = std::make_unique<ProcessedFile>(files_, processed, ifExists);
    sidecar_ = files_.create(base + ".json", sidecar(), ifExists);
}

Recording::~Recording() = default;

Take* Recording::takeOf(int number) {
    const auto found =
        std::find_if(takes_.begin(), takes_.end(), [&](const auto& take) { return take->headset().number == number; });
    return found == takes_.end() ? nullptr : found->get();
}

void Recording::take(std::span<const velmora_record> records) {
    for (const velmora_record& record : records) {
        if (record.headset < 0) {
            for (const auto& take : takes_) {
                take->take(record);
            }
        } else if (Take* take = takeOf(record.headset)) {
            if (record.kind == VELMORA_PROCESSED) {
                processed_->add(record, take->headset(), static_cast<double>(record.time - start_.time) / 1e9);
            } else {
                take->take(record);
            }
        }
    }
}

void Recording::mark(std::int64_t time, const std::string& text) {
    for (const auto& take : takes_) {
        take->mark(time, text);
    }
}

void Recording::tick(std::int64_t now) {
    if (now - lastTick_ < kTick) {
        return;
    }
    lastTick_ = now;
    for (const auto& take : takes_) {
        take->commit();
    }
    processed_->commit();
    if (now - lastSidecar_ >= kSidecar) {
        lastSidecar_ = now;
        sidecar_->replace(sidecar());
    }
}

void Recording::finish() {
    if (std::exchange(finished_, true)) {
        return;
    }
    std::exception_ptr error;
    const auto attempt = [&error](auto&& act) {
        try {
            act();
        } catch (const FileError&) {
            if (!error) {
                error = std::current_exception();
            }
        }
    };
    for (const auto& take : takes_) {
        attempt([&] { take->finish(); });
    }
    attempt([&] { processed_->finish(); });
    attempt([&] {
        sidecar_->replace(sidecar());
        sidecar_->sync();
        sidecar_->close();
    });
    if (error) {
        std::rethrow_exception(error);
    }
}

std::vector<std::string> Recording::unusualRates() const {
    std::vector<std::string> texts;
    for (const auto& take : takes_) {
        if (!take->unusualRate().empty()) {
            texts.push_back(take->unusualRate());
        }
    }
    return texts;
}

Progress Recording::progress() const {
    Progress progress;
    progress.bytes = processed_->size();
    for (const auto& take : takes_) {
        progress.headsets.push_back(take->progress());
        progress.bytes += take->bytes();
    }
    return progress;
}

std::string Recording::sidecar() const {
    const bool edf = options_.target.format == Format::Edf;
    std::string text =
        "{\n  \"program\": " + jsonText("velmora " + programVersion_) +
        ",\n  \"library\": " + jsonText("velmora " + libraryVersion_) +
        ",\n  \"format\": " + jsonText(edf ? "EDF+C" : "CSV") + ",\n  \"finished\": " + (finished_ ? "true" : "false") +
        ",\n  \"start_utc\": " + jsonTime(start_.utc) +
        ",\n  \"utc_offset_seconds\": " + std::to_string(start_.localOffset) +
        ",\n  \"unit\": " + jsonText(options_.unit) +
        ",\n  \"gain\": " + jsonNumber(edf ? edfRange(options_.gain).gain() : options_.gain) +
        ",\n  \"lost_samples\": " + (edf ? std::to_string(kFill) : "\"empty\"") + ",\n  \"headsets\": [\n";
    const char* separator = "";
    for (const auto& take : takes_) {
        text += separator + take->json();
        separator = ",\n";
    }
    return text + "\n  ]\n}\n";
}

}  // namespace velmora::record
