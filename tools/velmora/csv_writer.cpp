#include "velmora/csv_writer.h"

#include <array>
#include <charconv>
#include <chrono>
#include <utility>

namespace velmora {

namespace {

// How long samples lie before they are written when little comes in; the pushing thread then need not wake anyone.
constexpr auto kRest = std::chrono::milliseconds(50);

// A packet's 112 samples belong to 15 channels at most, so they come in runs of seven at least.
constexpr std::size_t kShortestRun = 7;

template <typename... Format>
void append(std::string& text, char after, auto value, Format... format) {
    std::array<char, 64> digits;
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value, format...);
    text.append(digits.data(), result.ptr);
    text += after;
}

}  // namespace

CsvWriter::CsvWriter(std::unique_ptr<std::ostream> out, std::size_t waitingSamples)
    : out_(std::move(out)), capacity_(waitingSamples) {
    waiting_.samples.reserve(capacity_);
    waiting_.runs.reserve(capacity_ / kShortestRun);
    thread_ = std::thread([this] { work(); });
}

CsvWriter::~CsvWriter() {
    close();
}

void CsvWriter::push(double seconds, int device, int channel, std::uint64_t firstSample, const int* samples, int count,
                     int stride) {
    const std::lock_guard lock(mutex_);
    const auto size = static_cast<std::size_t>(count);
    if (closing_ || failed_ || waiting_.samples.size() + size > capacity_) {
        dropped_ += size;
        return;
    }
    waiting_.runs.push_back({seconds, device, channel, firstSample, size});
    for (std::ptrdiff_t i = 0; i < count; ++i)
        waiting_.samples.push_back(samples[i * stride]);
}

bool CsvWriter::close() {
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable())
        thread_.join();
    return !failed();
}

bool CsvWriter::failed() const {
    const std::lock_guard lock(mutex_);
    return failed_;
}

std::uint64_t CsvWriter::writtenSamples() const {
    const std::lock_guard lock(mutex_);
    return written_;
}

std::uint64_t CsvWriter::droppedSamples() const {
    const std::lock_guard lock(mutex_);
    return dropped_;
}

void CsvWriter::work() {
    Batch batch;
    batch.samples.reserve(capacity_);
    batch.runs.reserve(capacity_ / kShortestRun);
    std::string text = "time,device,channel,sample,value\n";
    for (bool last = false; !last;) {
        batch.runs.clear();
        batch.samples.clear();
        {
            std::unique_lock lock(mutex_);
            wake_.wait_for(lock, kRest, [this] { return closing_; });
            std::swap(batch, waiting_);
            last = closing_;
        }
        write(batch, text);
        text.clear();
        const bool good = !out_->flush().fail();
        const std::lock_guard lock(mutex_);
        if (!good) {
            failed_ = true;
            dropped_ += batch.samples.size() + waiting_.samples.size();
            return;
        }
        written_ += batch.samples.size();
    }
}

void CsvWriter::write(const Batch& batch, std::string& text) {
    constexpr std::size_t kPortion = 1U << 16U;
    std::size_t at = 0;
    std::string front;
    for (const Run& run : batch.runs) {
        front.clear();
        append(front, ',', run.seconds, std::chars_format::fixed, 6);
        append(front, ',', run.device);
        append(front, ',', run.channel);
        for (std::size_t i = 0; i < run.count; ++i, ++at) {
            text += front;
            append(text, ',', run.firstSample + i);
            append(text, '\n', batch.samples[at]);
        }
        if (text.size() >= kPortion) {
            out_->write(text.data(), static_cast<std::streamsize>(text.size()));
            text.clear();
        }
    }
    out_->write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace velmora
