#include "velmora/stream_tap.h"

#include <VelmoraSDK.h>

#include <utility>

namespace velmora {

namespace {

// Events that wait at most; nobody looks at them during a scan.
constexpr std::size_t kMostEvents = 256;

double secondsBetween(StreamTap::Clock::time_point from, StreamTap::Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

StreamTap& StreamTap::instance() {
    static StreamTap& tap = *new StreamTap;
    return tap;
}

void StreamTap::install() {
    SDK_SetRawDataCallback(
        [](int device, int channel, int* samples, int count) { instance().onRaw(device, channel, samples, count); });
    SDK_SetPostDataCallback(
        [](int, unsigned char, unsigned char, unsigned char, unsigned char, unsigned int*) { instance().onPost(); });
    SDK_SetBattInfoCallback(
        [](int device, unsigned level, unsigned value) { instance().onBattery(device, level, value); });
    SDK_SetEventCallback([](unsigned code, unsigned value) { instance().onEvent(code, value); });
}

void StreamTap::begin(CsvWriter* csv) {
    const std::lock_guard lock(mutex_);
    statistics_ = StreamStatistics{};
    lastData_.reset();
    begin_ = Clock::now();
    csv_ = csv;
    counting_ = true;
}

void StreamTap::end() {
    const std::lock_guard lock(mutex_);
    csv_ = nullptr;
    counting_ = false;
}

StreamTap::Look StreamTap::look() const {
    const std::lock_guard lock(mutex_);
    const auto now = Clock::now();
    Look look;
    look.counters = statistics_.counters();
    look.seconds = secondsBetween(begin_, now);
    look.anyData = lastData_.has_value();
    look.lastDataSeconds = secondsBetween(begin_, lastData_.value_or(begin_));
    look.silentSeconds = look.seconds - look.lastDataSeconds;
    return look;
}

std::vector<StreamTap::Event> StreamTap::takeEvents() {
    const std::lock_guard lock(mutex_);
    return std::exchange(events_, {});
}

bool StreamTap::counts() {
    if (counting_)
        lastData_ = Clock::now();
    return counting_;
}

void StreamTap::onRaw(int device, int channel, const int* samples, int count) {
    const std::lock_guard lock(mutex_);
    if (!counts())
        return;
    const auto size = static_cast<std::size_t>(count < 0 ? 0 : count);
    const auto layout = statistics_.addRaw(device, channel, {samples, size});
    if (!layout || csv_ == nullptr)
        return;
    const double seconds = secondsBetween(begin_, *lastData_);
    const auto& numbers = statistics_.counters().devices[static_cast<std::size_t>(device)].samples;
    for (int c = 0; c < layout->channels; ++c) {
        const int number = layout->firstChannel + c;
        // Numbered here, so that samples which the writer drops leave a gap in the numbers.
        const std::uint64_t first =
            numbers[static_cast<std::size_t>(number)] - static_cast<std::uint64_t>(layout->samplesPerChannel);
        csv_->push(seconds, device, number, first, samples + c, layout->samplesPerChannel, layout->channels);
    }
}

void StreamTap::onPost() {
    const std::lock_guard lock(mutex_);
    if (counts())
        statistics_.addPost();
}

void StreamTap::onBattery(int device, unsigned level, unsigned value) {
    const std::lock_guard lock(mutex_);
    if (counts())
        statistics_.addBattery(device, level, value);
}

void StreamTap::onEvent(unsigned code, unsigned value) {
    const std::lock_guard lock(mutex_);
    if (events_.size() < kMostEvents)
        events_.push_back({code, value});
}

}  // namespace velmora
