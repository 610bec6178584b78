#include "scenario.h"

#include <algorithm>

namespace test {

using namespace std::chrono_literals;

bool RawPacket::allZero() const {
    return std::all_of(samples.begin(), samples.end(), [](int sample) { return sample == 0; });
}

void Received::install(kxorbeta_if::CallbackTable& table) {
    table.context = this;
    table.event = [](void* self, unsigned code, unsigned value, void* detail) {
        auto& here = *static_cast<Received*>(self);
        const std::lock_guard guard(here.mutex_);
        here.events_.push_back({code, value, detail == nullptr ? "" : static_cast<const char*>(detail)});
    };
    table.rawData = [](void* self, int device, int channel, int* samples, int count) {
        auto& here = *static_cast<Received*>(self);
        const std::lock_guard guard(here.mutex_);
        here.raw_.push_back({device, channel, {samples, samples + count}});
        ++here.rawCount_;
    };
    table.postData = [](void* self, int, unsigned char, unsigned char, unsigned char, unsigned char, unsigned*) {
        ++static_cast<Received*>(self)->postCount_;
    };
    table.battInfo = [](void* self, int, unsigned, unsigned) { ++static_cast<Received*>(self)->batteryCount_; };
    table.response = [](void* self, int, unsigned char, unsigned char* frame, int length) {
        auto& here = *static_cast<Received*>(self);
        const std::lock_guard guard(here.mutex_);
        here.responses_.emplace_back(frame, frame + length);
    };
}

std::vector<EventSeen> Received::events() const {
    const std::lock_guard guard(mutex_);
    return events_;
}

std::vector<RawPacket> Received::rawPackets() const {
    const std::lock_guard guard(mutex_);
    return raw_;
}

std::vector<std::vector<std::uint8_t>> Received::responses() const {
    const std::lock_guard guard(mutex_);
    return responses_;
}

bool Received::hasEvent(unsigned code) const {
    const auto seen = events();
    return std::any_of(seen.begin(), seen.end(), [&](const EventSeen& event) { return event.code == code; });
}

void Received::forgetData() {
    const std::lock_guard guard(mutex_);
    raw_.clear();
    rawCount_ = 0;
}

Scenario::Scenario() : settings(dongle::defaultSettings(2)), log(0) {
    settings.replies.connectDuration = 20ms;
    settings.replies.streamDelay = 20ms;
    settings.replies.responseDelay = 5ms;
    context_.timing.connectionReadsPerSecond = 2;  // 200 reads of 20 ms instead of 5,000
    context_.timing.drainPoll = 10ms;
    received.install(context_.callbacks);
}

Scenario::~Scenario() {
    kxorbeta_if::disconnectAll(context_);
    EXPECT_TRUE(linkEnded()) << "a link thread outlives its test";
}

void Scenario::start() {
    TestLine line = plugLine();
    const std::string path = portPath(line);
    dongle_ = std::make_unique<dongle::Runner>(settings, std::move(line.dongleEnd));
    ASSERT_EQ(context_.port.open(path.c_str(), kxorbeta_if::kDongleBaud, 3, 0, 0), kxorbeta_if::SerialPort::kOpened);
}

void Scenario::connect() {
    ASSERT_TRUE(kxorbeta_if::connectGroup(context_, {{settings.headsets.front().address, 1, 0}}, 0));
    ASSERT_TRUE(eventually([&] { return context_.flags.linkStarted.load(); }));
}

void Scenario::deliver(const std::string& bytes) {
    dongle_->with([&](dongle::Engine& engine) { engine.sendRaw(bytes); });
}

dongle::HeadsetCounters Scenario::sent(int index) {
    return dongle_->with([&](dongle::Engine& engine) { return engine.headsetCounters(index); });
}

std::vector<std::string> Scenario::requests() {
    std::vector<std::string> lines;
    const auto all = dongle_->with([](dongle::Engine& engine) { return engine.log().since(0); });
    for (const dongle::HostRequest& request : all) {
        lines.push_back(describe(request));
    }
    return lines;
}

std::size_t Scenario::requestCount(const std::string& beginning) {
    return dongle_->with([&](dongle::Engine& engine) { return engine.log().countTexts(beginning); });
}

}  // namespace test
