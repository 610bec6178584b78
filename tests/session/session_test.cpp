#include "session/session.h"

#include <csignal>
#include <filesystem>

#include "dongle/dongle_runner.h"
#include "environment_fixture.h"
#include "link/serial_port.h"
#include "support/eventually.h"
#include "support/process_memory.h"
#include "support/test_line.h"
#include "support/testing.h"
#include "velmora/velmora.hpp"

namespace {

using namespace std::chrono_literals;
using test::eventually;
using Replies = dongle::ReplySettings;

/// What a host keeps of the records it has read.
struct Seen {
    std::map<int, std::vector<velmora_record>> of;  // by kind
    std::map<int, std::uint64_t> raw, missing;      // by headset number

    std::size_t count(int event) {
        return static_cast<std::size_t>(std::count_if(of[VELMORA_EVENT].begin(), of[VELMORA_EVENT].end(),
                                                      [&](const velmora_record& e) { return e.code == event; }));
    }
    void take(const velmora_record& record) {
        of[record.kind].push_back(record);
        if (record.kind == VELMORA_RAW) {
            ++raw[record.headset];
            missing[record.headset] += record.lost + record.dropped;
        }
    }
};

/// A virtual dongle on a line, and a handle on it.
class SessionTest : public testing::Test {
  protected:
    SessionTest() {
        settings.replies.connectDuration = 5ms;
        settings.replies.streamDelay = 5ms;
        settings.replies.scanDuration = 60ms;
        settings.replies.responseDelay = 5ms;
        settings.line.gaps = false;
        settings.line.dataDuringText = true;
    }

    /// Starts the dongle and opens its port.
    velmora::Dongle& open(velmora::OpenOptions options = {}) {
        test::TestLine line = test::plugLine();
        path = line.hostPort;
        runner = std::make_unique<dongle::Runner>(settings, std::move(line.dongleEnd));
        host = std::make_unique<velmora::Dongle>(path, std::move(options));
        return *host;
    }
    velmora_status connectAll() {
        std::vector<velmora_wanted> wanted = test::everybody(settings);
        return host->connect(std::span(wanted), 20s);
    }
    template <typename Use>
    auto engine(Use use) {
        return runner->with(use);
    }
    /// Changes how the running dongle replies.
    template <typename Value>
    void reply(Value dongle::ReplySettings::*how, std::type_identity_t<Value> value) {
        settings.replies.*how = value;
        engine([&](dongle::Engine& e) { e.setReplies(settings.replies); });
    }
    std::size_t total() {
        return engine([](dongle::Engine& e) { return e.log().total; });
    }
    std::ptrdiff_t connections() const {
        const auto all = host->headsets();
        return std::count_if(all.begin(), all.end(), [](const velmora_headset& h) { return h.connected != 0; });
    }
    std::size_t requests(std::string_view beginning) {
        return engine([&](dongle::Engine& e) { return e.log().countTexts(beginning); });
    }
    /// Reads until `enough` of what was seen.
    bool readUntil(const std::function<bool()>& enough) {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        std::vector<velmora_record> records(512);
        while (!enough()) {
            const velmora::Batch batch = host->read(records, 1, 50ms);
            for (const velmora_record& record : batch.records) {
                seen.take(record);
            }
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
        }
        return true;
    }

    dongle::Settings settings = dongle::defaultSettings(2);
    std::unique_ptr<dongle::Runner> runner;
    std::string path;
    std::unique_ptr<velmora::Dongle> host;
    Seen seen;
};

velmora_status statusOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const velmora::Error& error) {
        EXPECT_STRNE(error.what(), "");
        return error.status();
    }
    return VELMORA_OK;
}

TEST_F(SessionTest, FromScanToTheLastPacketOfSixteenHeadsets) {
    settings.headsets = dongle::defaultSettings(16).headsets;
    settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    settings.faults.split = 0.2;
    open();
    std::vector<std::string> reported;
    const auto found = host->scan(10s, nullptr, [&](const velmora_found& f) { reported.push_back(f.address); });
    ASSERT_EQ(found.size(), 16u);
    ASSERT_EQ(reported.size(), 16u);
    EXPECT_STREQ(found[3].name, settings.headsets[3].name.c_str());
    EXPECT_EQ(found[3].option, 1);
    const velmora::Dongle::Moment moment = host->start();
    const auto connected = host->connect(std::span(found), 10s);
    for (std::size_t i = 0; i < connected.size(); ++i) {
        EXPECT_EQ(connected[i].status, VELMORA_OK) << i;
        EXPECT_EQ(connected[i].headset, found[i].headset) << i;
        EXPECT_EQ(connected[i].index, settings.headsets[i].index) << i;
    }
    ASSERT_TRUE(readUntil([&] { return seen.raw[0] > 100 && seen.raw[15] > 100; }));
    host->dropAll();
    EXPECT_EQ(host->headsets()[2].connected, 0);
    // What was still on its way arrives in the end.
    for (const velmora_wanted& c : connected) {
        const auto sent = [&] { return engine([&](dongle::Engine& e) { return e.headsetCounters(c.index).rawSent; }); };
        EXPECT_TRUE(readUntil([&] { return seen.raw[c.headset] == sent(); })) << c.index << ": " << seen.raw[c.headset];
        EXPECT_EQ(seen.missing[c.headset], 0u) << c.index;
    }
    EXPECT_TRUE(readUntil([&] { return seen.count(VELMORA_EVENT_DISCONNECTED) == 16; }));
    EXPECT_EQ(seen.count(VELMORA_EVENT_CONNECTED), 16u);
    for (const velmora_record& event : seen.of[VELMORA_EVENT]) {
        EXPECT_GE(event.time, moment.time);
        EXPECT_LE(event.time, velmora_now());
    }
    const velmora_statistics statistics = host->statistics();
    EXPECT_EQ(statistics.stray_bytes + statistics.damaged_headers + statistics.incomplete_frames, 0u);
    EXPECT_EQ(statistics.queue_dropped, 0u);
}

TEST_F(SessionTest, TheGateOpensBetweenTwoPackets) {
    settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    open();
    ASSERT_EQ(connectAll(), VELMORA_OK);
    std::vector<velmora_record> records(4096);
    for (int round = 0; round < 20; ++round) {
        const auto moment = host->start();
        std::map<int, std::map<int, int>> next;  // by headset and channel: the counter that must follow
        const velmora::Batch batch = host->read(records, 60, 20s);
        ASSERT_EQ(batch.status, VELMORA_OK) << "a reader was left asleep";
        for (const velmora_record& record : batch.records) {
            if (record.kind != VELMORA_RAW || record.time < moment.time) {
                continue;  // queued by the start before
            }
            auto [place, first] = next[record.headset].try_emplace(record.channel, record.counter);
            EXPECT_EQ(place->second & 255, record.counter);
            EXPECT_EQ((record.flags & VELMORA_FLAG_FIRST) != 0, first);
            EXPECT_EQ(record.lost, 0u);
            place->second = record.counter + 1;
        }
        EXPECT_FALSE(next.empty());
        host->stop();
        host->read(records, 0, 0ms);
    }
}

TEST_F(SessionTest, RecordsOfEveryKind) {
    settings.headsets.pop_back();
    settings.headsets[0].batteryInterval = 30ms;
    settings.headsets[0].postInterval = 30ms;
    settings.headsets[0].packing = dongle::Packing::Multi;
    settings.headsets[0].channels = 5;
    settings.headsets[0].index = 9;
    open();
    host->start();
    ASSERT_EQ(connectAll(), VELMORA_OK);
    const std::uint8_t payload[] = {1, 2, 3};
    const velmora_record response = host->request(9, 0x42, payload, 10s);
    EXPECT_TRUE(response.code == 0x42 && response.index == 9);
    const std::vector<std::uint8_t> frame(response.bytes, response.bytes + response.count);
    EXPECT_EQ(frame, dongle::shortResponse(0xDD, 0x42, payload));
    ASSERT_TRUE(readUntil([&] {
        return seen.raw[0] >= 5 && seen.of[VELMORA_BATTERY].size() >= 2 && seen.of[VELMORA_PROCESSED].size() >= 2 &&
               !seen.of[VELMORA_RESPONSE].empty();
    }));
    EXPECT_EQ(seen.of[VELMORA_RESPONSE].front().time, response.time);
    const velmora_record battery = seen.of[VELMORA_BATTERY][0], processed = seen.of[VELMORA_PROCESSED][0];
    const dongle::PostValues values = dongle::postValues(9, processed.bytes[0]);
    EXPECT_TRUE(battery.values[0] == 90 && battery.values[1] == 3700);
    EXPECT_TRUE(processed.bytes[1] == values.value2 && processed.values[7] == values.bands[7]);
    for (const velmora_record& record : seen.of[VELMORA_RAW]) {
        ASSERT_TRUE((record.flags & VELMORA_FLAG_MULTI) != 0 && record.channels == 5 && record.count == 112 / 5);
        ASSERT_EQ(record.sample % (112 / 5), 0);
        for (int i = 0; i < 110; ++i) {
            const auto n = static_cast<std::uint64_t>(record.sample + i / 5);
            ASSERT_EQ(record.samples[i], dongle::sampleValue(9, i % 5, n)) << record.sample << " " << i;
        }
        ASSERT_EQ(record.samples[110] | record.samples[111], 0);
    }
}

TEST_F(SessionTest, WhatCannotBeAddressedIsRefusedUnlessTheKnownTextIsWanted) {
    open({.commandGap = 30ms});
    const auto began = std::chrono::steady_clock::now();
    const struct {
        int target;
        const char* text;  // null: only with VELMORA_KNOWN_TEXTS
        const char* known;
    } cases[] = {{VELMORA_ALL, "AL", "AL"}, {0, nullptr, "AL"}, {1, "1", "1"},       {9, "9", "9"},
                 {10, nullptr, "11"},       {11, "11", "11"},   {12, nullptr, "11"}, {13, nullptr, "1"},
                 {15, nullptr, "1"}};
    std::vector<std::string> expected;
    for (const auto& c : cases) {
        EXPECT_EQ(statusOf([&] { host->send(c.target, 7); }), c.text ? VELMORA_OK : VELMORA_NOT_ADDRESSABLE)
            << c.target;
        expected.insert(expected.end(), c.text ? 1 : 0, c.text ? c.text : "");
        host->send(c.target, 7, {}, VELMORA_KNOWN_TEXTS);
        expected.push_back(c.known);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - began, (expected.size() - 1) * 30ms) << "commands keep their distance";
    EXPECT_EQ(host->statistics().commands, expected.size());
    EXPECT_EQ(statusOf([&] { host->send(16, 7); }), VELMORA_INVALID);
    EXPECT_EQ(statusOf([&] { host->request(VELMORA_ALL, 7); }), VELMORA_INVALID);
    const std::uint8_t bytes[13] = {};
    for (const std::size_t length : {5u, 6u, 7u, 9u, 13u}) {
        EXPECT_EQ(statusOf([&] { host->send(1, 7, std::span(bytes, length)); }), VELMORA_INVALID) << length;
    }
    ASSERT_TRUE(eventually([&] { return total() >= expected.size(); }));
    std::vector<std::string> targets;
    for (const auto& request : engine([](dongle::Engine& e) { return e.log().since(0); })) {
        targets.push_back(request.target);
    }
    EXPECT_EQ(targets, expected);
}

TEST_F(SessionTest, ARequestWaitsForItsOwnResponse) {
    open({.commandGap = 1ms});
    ASSERT_EQ(connectAll(), VELMORA_OK);
    reply(&Replies::responseDelay, 300ms);
    const std::uint8_t twelve[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 0x55};
    velmora_record long_{};
    std::thread first([&] { long_ = host->request(1, 0x33, twelve, 20s); });
    ASSERT_TRUE(eventually([&] { return total() == 2; }));
    EXPECT_EQ(statusOf([&] { host->request(1, 0x55); }), VELMORA_BUSY);
    // Another headset's response of the same code is not it.
    reply(&Replies::responseDelay, 1ms);
    EXPECT_EQ(host->request(2, 0x55, {}, 20s).index, 2);
    first.join();
    EXPECT_EQ(long_.index, 1);
    EXPECT_EQ(long_.code, 0x55) << "with twelve bytes the last of them is the code";
    EXPECT_EQ(long_.count, 16);

    reply(&Replies::commands, false);
    EXPECT_EQ(statusOf([&] { host->request(1, 9, {}, 20ms); }), VELMORA_TIMEOUT);
    std::thread leaving([&] {
        EXPECT_TRUE(eventually([&] { return total() == 5; }));
        engine([](dongle::Engine& e) { e.disconnect(1); });
    });
    EXPECT_EQ(statusOf([&] { host->request(1, 9, {}, 20s); }), VELMORA_NOT_CONNECTED);
    leaving.join();
}

TEST_F(SessionTest, EachAddressIsToldWhetherItConnected) {
    settings.headsets[1].connectFails = true;
    open();
    std::vector<velmora_wanted> wanted = test::everybody(settings);
    wanted.push_back(wanted.back());
    std::string("0A1B2C3D4E5F").copy(wanted.back().address, 12);
    EXPECT_EQ(host->connect(std::span(wanted), 20s), VELMORA_NOT_CONNECTED);
    EXPECT_TRUE(wanted[0].status == VELMORA_OK && wanted[0].index == 1);
    EXPECT_TRUE(wanted[1].status == VELMORA_NOT_CONNECTED && wanted[2].status == VELMORA_NOT_CONNECTED);
    // While one is connected a dongle is asked for nothing that nobody has seen it do.
    EXPECT_EQ(statusOf([&] { host->scan(1s); }), VELMORA_BUSY);
    EXPECT_EQ(statusOf([&] { connectAll(); }), VELMORA_BUSY);
    EXPECT_EQ(requests("AT+GRPCONN"), 1u);
    EXPECT_EQ(requests("AT+SCAN"), 0u);
    EXPECT_EQ(statusOf([&] { host->drop(wanted[1].address); }), VELMORA_NOT_FOUND);
    host->drop(wanted[0].address, 20s);
    EXPECT_EQ(statusOf([&] { host->dropAll(); }), VELMORA_BUSY);
    host->dropAll(VELMORA_ALLOW_UNPROVED);
    EXPECT_TRUE(eventually([&] { return requests("AT+DISCONN") == 1; }));
    wanted[0].address[3] = 'x';
    EXPECT_EQ(statusOf([&] { host->connect(std::span(wanted), 1s); }), VELMORA_INVALID);
}

TEST_F(SessionTest, ASecondGroupIsWhatTheDongleMakesOfIt) {
    using dongle::SecondGroup;
    const struct {
        SecondGroup dongle;
        velmora_status status;
        int firstConnected, secondConnected;
    } cases[] = {{SecondGroup::Accept, VELMORA_OK, 1, 1},
                 {SecondGroup::Ignore, VELMORA_TIMEOUT, 1, 0},
                 {SecondGroup::DropOthers, VELMORA_OK, 0, 1}};
    open();
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.dongle));
        reply(&Replies::secondGroup, c.dongle);
        std::vector<velmora_wanted> wanted = test::everybody(settings);
        ASSERT_EQ(host->connect(std::span(wanted).first(1), 20s), VELMORA_OK);
        const auto second = std::span(wanted).last(1);
        EXPECT_EQ(statusOf([&] { host->connect(second, 20s); }), VELMORA_BUSY);
        const auto patience = c.status == VELMORA_OK ? 20'000ms : 50ms;
        EXPECT_EQ(statusOf([&] { host->connect(second, patience, nullptr, VELMORA_ALLOW_UNPROVED); }), c.status);
        EXPECT_EQ(wanted[1].status, c.status);
        const auto known = host->headsets();
        EXPECT_EQ(known.at(0).connected, c.firstConnected);
        EXPECT_EQ(known.at(1).connected, c.secondConnected);
        host->dropAll();
    }
}

TEST_F(SessionTest, HeadsetsThatAnEndedProgramLeftAreInferred) {
    settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond / 4;
    open();
    ASSERT_EQ(connectAll(), VELMORA_OK);
    host.reset();
    host = std::make_unique<velmora::Dongle>(path);
    ASSERT_TRUE(readUntil([&] { return seen.count(VELMORA_EVENT_CONNECTED) == 2; }));
    EXPECT_EQ(seen.of[VELMORA_EVENT][0].bytes[0], 0) << "nobody has said its address";
    EXPECT_EQ(host->headsets().at(0).connected, 1);
    EXPECT_STREQ(host->headsets().at(0).address, "");
    EXPECT_EQ(statusOf([&] { host->scan(1s); }), VELMORA_BUSY);
    host->start();
    ASSERT_TRUE(readUntil([&] { return seen.raw[0] > 5 && seen.raw[1] > 5; }));
    host->dropAll();
    EXPECT_EQ(host->scan(10s).size(), 2u);
}

TEST_F(SessionTest, WhatIsGoingOnRefusesOthersAndEndsWithARestart) {
    settings.replies.scanDuration = 20s;
    open();
    const auto restartAt = [&](std::string_view request) {
        return std::thread([this, request] {
            EXPECT_TRUE(eventually([&] { return requests(request) > 0; }));
            EXPECT_TRUE(eventually([&] { return request == "AT+SCAN" || connections() == 2; }));
            const std::size_t before = total();
            EXPECT_EQ(statusOf([&] { host->scan(20s); }), VELMORA_BUSY);
            EXPECT_EQ(statusOf([&] { connectAll(); }), VELMORA_BUSY);
            EXPECT_EQ(statusOf([&] { host->dropAll(VELMORA_ALLOW_UNPROVED); }), VELMORA_BUSY);
            EXPECT_EQ(total(), before) << "nobody else's request goes out meanwhile";
            engine([](dongle::Engine& e) { e.restart(); });
        });
    };
    std::thread restarter = restartAt("AT+SCAN");
    EXPECT_EQ(statusOf([&] { host->scan(20s); }), VELMORA_RESTARTED);
    restarter.join();
    reply(&Replies::connectEnd, false);
    restarter = restartAt("AT+GRPCONN");
    std::vector<velmora_wanted> wanted = test::everybody(settings);
    EXPECT_EQ(statusOf([&] { host->connect(std::span(wanted), 20s); }), VELMORA_RESTARTED);
    EXPECT_EQ(wanted[0].status, VELMORA_RESTARTED);
    EXPECT_EQ(wanted[0].index, -1);
    restarter.join();
    reply(&Replies::connectEnd, true);
    reply(&Replies::commands, false);
    host->start();
    for (std::size_t round = 1; round <= 3; ++round) {
        ASSERT_EQ(connectAll(), VELMORA_OK);
        seen.raw.clear();
        ASSERT_TRUE(readUntil([&] { return seen.raw[0] > 2 && seen.raw[1] > 2; })) << "the numbers stay";
        std::thread requester([&] { EXPECT_EQ(statusOf([&] { host->request(1, 3, {}, {}); }), VELMORA_RESTARTED); });
        EXPECT_TRUE(eventually([&] { return host->statistics().commands == round; }));
        engine([](dongle::Engine& e) { e.restart(); });
        requester.join();
        ASSERT_TRUE(readUntil([&] { return seen.count(VELMORA_EVENT_RESTARTED) == round + 2; }));
        EXPECT_EQ(host->headsets().at(0).connected, 0);
    }
    EXPECT_EQ(host->headsets().size(), 2u);
}

TEST_F(SessionTest, AHostThatDoesNotReadLosesTheNewestAndLearnsHowMany) {
    settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    open({.queueCapacity = 50});
    host->start();
    ASSERT_EQ(connectAll(), VELMORA_OK);
    ASSERT_TRUE(eventually([&] { return host->statistics().queue_dropped > 100; }));
    host->stop();
    const std::uint64_t dropped = host->statistics().queue_dropped;
    std::vector<velmora_record> records(1000);
    const auto batch = host->read(records, 0);
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
        EXPECT_EQ(batch.records[i].kind == VELMORA_EVENT && batch.records[i].code == VELMORA_EVENT_OVERRUN, i == 50);
    }
    EXPECT_EQ(host->statistics().queue_dropped, dropped);
    EXPECT_EQ(host->statistics().queue_largest, batch.records.size());
    std::uint64_t byChannel = 0;
    for (const int headset : {0, 1}) {
        for (const velmora_channel_statistics& channel : host->statistics(headset).channels) {
            byChannel += channel.dropped;
        }
    }
    EXPECT_EQ(byChannel, dropped);
}

velmora::Cancel* raisedBySignal = nullptr;

TEST_F(SessionTest, CancellingEndsTheCallThatItWasGivenTo) {
    open();
    ASSERT_EQ(connectAll(), VELMORA_OK);
    velmora::Cancel reading;
    velmora::Cancel requesting;
    reply(&Replies::commands, false);
    std::vector<velmora_record> records(10'000);
    host->read(records, 0);
    std::atomic<bool> requestEnded{false};
    std::thread reader([&] { EXPECT_EQ(host->read(records, records.size(), {}, &reading).status, VELMORA_CANCELLED); });
    std::thread requester([&] {
        EXPECT_EQ(statusOf([&] { host->request(1, 3, {}, {}, &requesting); }), VELMORA_CANCELLED);
        requestEnded = true;
    });
    raisedBySignal = &reading;
    auto* const before = std::signal(SIGINT, [](int) { raisedBySignal->raise(); });
    std::raise(SIGINT);
    reading.raise();
    reader.join();
    std::signal(SIGINT, before);
    EXPECT_FALSE(requestEnded);
    requesting.raise();
    requester.join();
    // It stays raised, for calls that have not begun too, until it is reset.
    EXPECT_EQ(host->read(records, 1, {}, &reading).status, VELMORA_CANCELLED);
    reading.reset();
    EXPECT_EQ(host->read(records, records.size(), 1ms, &reading).status, VELMORA_TIMEOUT);
}

TEST_F(SessionTest, ClosingEndsEverythingThatIsInside) {
    settings.replies.commands = false;
    settings.replies.connectEnd = false;
    open();
    host->start();
    std::vector<velmora_record> records(10'000);
    std::thread reader([&] {
        EXPECT_EQ(host->read(records, records.size(), {}).status, VELMORA_OK) << "what came before is delivered";
    });
    std::thread connecter([&] { EXPECT_EQ(statusOf([&] { connectAll(); }), VELMORA_CLOSED); });
    std::thread requester([&] { EXPECT_EQ(statusOf([&] { host->request(2, 3, {}, {}); }), VELMORA_CLOSED); });
    std::vector<velmora_record> others(1);
    EXPECT_TRUE(eventually([&] {
        std::size_t got = 0;  // the reader is inside when a second one is refused
        return velmora_read(host->get(), others.data(), sizeof others[0], 1, 0, 0, nullptr, &got) == VELMORA_BUSY &&
               host->headsets().size() == 2 && host->statistics().commands == 1;
    }));
    EXPECT_EQ(statusOf([&] { host->scan(); }), VELMORA_BUSY);
    std::thread closer([&] { host->close(); });
    host->close();
    for (std::thread* thread : {&reader, &connecter, &requester, &closer}) {
        thread->join();
    }
    EXPECT_EQ(host->read(records, 1, {}).status, VELMORA_CLOSED);
    EXPECT_EQ(statusOf([&] { host->scan(); }), VELMORA_CLOSED);
    EXPECT_EQ(statusOf([&] { host->send(1, 1); }), VELMORA_CLOSED);
    EXPECT_EQ(statusOf([&] { host->reopen(); }), VELMORA_CLOSED);
    EXPECT_EQ(statusOf([&] { host->start(); }), VELMORA_CLOSED);
    EXPECT_EQ(host->headsets().size(), 2u);
}

TEST(Session, CallsWithoutAHandleSayWhatIsWrong) {
    velmora_error error{};
    error.size = sizeof error;
    auto* dongle = reinterpret_cast<velmora_dongle*>(&error);
    EXPECT_EQ(velmora_open("COM250", nullptr, &dongle, &error), VELMORA_NOT_FOUND);
    EXPECT_EQ(dongle, nullptr);
    EXPECT_EQ(error.status, VELMORA_NOT_FOUND);
    EXPECT_NE(std::string_view(error.text).find("COM250"), std::string_view::npos) << error.text;
    velmora::Cancel cancel;
    cancel.raise();
    std::size_t count = 0;
    EXPECT_NE(velmora_find(nullptr, nullptr, sizeof(velmora_port), 0, &count, cancel.get(), nullptr), VELMORA_OK);
    EXPECT_EQ(velmora_ports(nullptr, sizeof(velmora_port), 0, &count, &error), VELMORA_OK);
    EXPECT_STREQ(error.text, "");
    EXPECT_EQ(velmora_read(nullptr, nullptr, 0, 0, 0, 0, nullptr, &count), VELMORA_INVALID);
    EXPECT_EQ(velmora_scan(nullptr, nullptr, nullptr, 0, 0, &count, 0, nullptr, &error), VELMORA_INVALID);
    velmora_close(nullptr);
    velmora_destroy(nullptr);
    EXPECT_STREQ(velmora_status_text(VELMORA_TIMEOUT), "time-out");
}

TEST_F(SessionTest, StructsOfAnySizeAreFilledAsFarAsTheyGo) {
    open();
    struct {
        velmora_statistics known;
        std::uint64_t more;
    } statistics{{}, 9};
    statistics.known.size = sizeof statistics;
    EXPECT_EQ(velmora_get_statistics(host->get(), &statistics.known), VELMORA_OK);
    EXPECT_EQ(statistics.known.size, sizeof statistics);
    EXPECT_EQ(statistics.known.queue_capacity, 8704u);
    EXPECT_EQ(statistics.more, 0u);
    statistics.known.size = 0;
    EXPECT_EQ(velmora_get_statistics(host->get(), &statistics.known), VELMORA_INVALID);
    // A text is not cut inside a character.
    velmora_dongle* none = nullptr;
    for (std::uint32_t size = sizeof(velmora_error) + 8; size > 16; size -= 7) {
        std::vector<char> memory(sizeof(velmora_error) + 8, 'x');
        auto* const error = reinterpret_cast<velmora_error*>(memory.data());
        error->size = size;
        EXPECT_EQ(velmora_open("n\xC3\xA4\xC3\xA4\xC3\xA4", nullptr, &none, error), VELMORA_NOT_FOUND);
        EXPECT_EQ(error->size, size);
        const std::string_view text = memory.data() + offsetof(velmora_error, text);
        EXPECT_LT(text.size(), size - 16);
        EXPECT_FALSE(text.ends_with('\xC3')) << size;
        EXPECT_EQ(std::count(memory.begin() + size, memory.end(), 'x'), memory.end() - memory.begin() - size);
    }
}

TEST_F(SessionTest, AHandleThatIsReplacedIsGoneBeforeItsLogFunction) {
    const test::TestLine line = test::plugLine();
    const test::TestLine otherLine = test::plugLine();
    velmora_status whenLogGoes = VELMORA_HELD;
    std::shared_ptr<int> kept(nullptr, [&](int*) {
        whenLogGoes = statusOf([&] { velmora::Dongle{line.hostPort}; });  // the handle holds the port while it lives
    });
    velmora::Dongle dongle(line.hostPort, {.log = [kept = std::move(kept)](std::int64_t, std::string_view) {}});
    dongle = velmora::Dongle(otherLine.hostPort);
    EXPECT_EQ(whenLogGoes, VELMORA_OK);
}

TEST_F(SessionTest, OpenedAndClosedThousandsOfTimes) {
#ifdef VELMORA_SANITIZED
    constexpr int kOpenings = 1'000;
#else
    constexpr int kOpenings = 10'000;
#endif
    test::TestLine line = test::plugLine();
    const int openings = test::linesCanHangUp() ? kOpenings : 300;  // emulated ports take twenty milliseconds to open
    std::size_t handles = 0;
    for (int i = 0; i < openings; ++i) {
        velmora::Dongle dongle(line.hostPort);
        if (i % 3 == 0) {
            dongle.close();
        }
        handles = i == 100 ? test::openHandles() : handles;  // what the system keeps for itself is open by then
    }
    EXPECT_LE(test::openHandles(), handles + 10);
}

}  // namespace
