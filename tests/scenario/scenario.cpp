#include "scenario.h"

#include <algorithm>

namespace test {

using namespace std::chrono_literals;

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
        ++here.rawCount;
    };
    table.postData = [](void* self, int, unsigned char, unsigned char, unsigned char, unsigned char, unsigned*) {
        ++static_cast<Received*>(self)->postCount;
    };
    table.battInfo = [](void* self, int, unsigned, unsigned) { ++static_cast<Received*>(self)->batteryCount; };
}

bool Received::hasEvent(unsigned code) const {
    const auto seen = events();
    return std::any_of(seen.begin(), seen.end(), [&](const EventSeen& event) { return event.code == code; });
}

void Received::forget() {
    const std::lock_guard guard(mutex_);
    events_.clear();
    raw_.clear();
    rawCount = postCount = batteryCount = 0;
}

Scenario::Scenario() : settings(dongle::defaultSettings(2)), log(0) {
    settings.replies.connectDuration = 20ms;
    settings.replies.streamDelay = 20ms;
    settings.replies.responseDelay = 5ms;
    received.install(context_.callbacks);
}

Scenario::~Scenario() {
    kxorbeta_if::disconnectAll(context_);
    EXPECT_TRUE(linkEnded()) << "a link thread outlives its test";
}

void Scenario::start() {
    line_.plug(settings);
}

void Scenario::connect() {
    ASSERT_TRUE(kxorbeta_if::connectGroup(context_, {{settings.headsets.front().address, 1, 0}}, 0));
    ASSERT_TRUE(clock_.eventually([&] { return context_.flags.linkStarted.load(); }));
}

void Scenario::deliver(const std::string& bytes) {
    line_.with([&](dongle::Engine& engine) { engine.sendRaw(bytes); });
}

void Scenario::expectToEndWithTheLine(const std::function<bool()>& attempt) {
    settings.replies.scanDuration = settings.replies.connectDuration = 60s;
    for (const bool hangUp : {true, false}) {
        start();
        const auto begin = clock_.now();
        std::thread other = clock_.thread([&] {
            clock_.sleepFor(3s);
            if (hangUp) {
                line_.with([](dongle::Engine& e) { e.hangUp(); });
            } else {
                context_.port.close();
            }
        });
        EXPECT_FALSE(attempt());
        EXPECT_LT(clock_.now() - begin, 3100ms);
        clock_.join(other);
        EXPECT_FALSE(context_.flags.scanning || context_.flags.connecting);
    }
}

dongle::HeadsetCounters Scenario::sent(int index) {
    return line_.with([&](dongle::Engine& engine) { return engine.headsetCounters(index); });
}

std::vector<std::string> Scenario::requests() {
    std::vector<std::string> lines;
    const auto all = line_.with([](dongle::Engine& engine) { return engine.log().since(0); });
    for (const dongle::HostRequest& request : all) {
        lines.push_back(describe(request));
    }
    return lines;
}

std::size_t Scenario::requestCount(const std::string& beginning) {
    return line_.with([&](dongle::Engine& engine) { return engine.log().countTexts(beginning); });
}

}  // namespace test
