#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/log.h"
#include "base/text.h"
#include "dongle/dongle_runner.h"
#include "dongle/headset_frames.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/log_setup.h"
#include "sdk/sdk_context.h"
#include "support/eventually.h"
#include "support/test_line.h"
#include "support/working_folder.h"

// The border to the host: each result, each byte that the dongle gets, and each argument of each callback.

namespace {

using namespace std::chrono_literals;
using Samples = std::vector<int>;
using Bands = std::array<std::uint32_t, 8>;

/// What a host's callback was called with, as a text that reads well in a failure.
std::string raw(int device, int channel, const Samples& samples) {
    return "raw " + std::to_string(device) + " channel " + std::to_string(channel) + testing::PrintToString(samples);
}
std::string post(int device, std::array<int, 4> values, const Bands& bands) {
    return "post " + std::to_string(device) + testing::PrintToString(values) + testing::PrintToString(bands);
}
std::string battery(int device, unsigned level, unsigned value) {
    return "battery " + std::to_string(device) + ": " + std::to_string(level) + " " + std::to_string(value);
}
std::string event(unsigned code, unsigned value) {
    return "event " + std::to_string(code) + ": " + std::to_string(value);
}
/// Seen inside the library, as no host gets it: the only call that does not ask whether collection is on.
std::string response(int device, unsigned command, const dongle::Bytes& frame) {
    return "response " + std::to_string(device) + " to " + std::to_string(command) + testing::PrintToString(frame);
}

/// What the host's callbacks were called with.
class Calls {
  public:
    void add(std::string call) {
        const std::lock_guard guard(mutex_);
        calls_.push_back(std::move(call));
    }
    std::size_t count() {
        const std::lock_guard guard(mutex_);
        return calls_.size();
    }
    std::vector<std::string> take() {
        const std::lock_guard guard(mutex_);
        return std::exchange(calls_, {});
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> calls_;
};
Calls calls;

/// The dongle's end of a line that keeps what the host sent, byte for byte.
class RecordingEnd : public dongle::Transport {
  public:
    struct Record {
        std::mutex mutex;
        std::string bytes;
    };

    RecordingEnd(std::unique_ptr<dongle::Transport> end, std::shared_ptr<Record> record)
        : end_(std::move(end)), record_(std::move(record)) {}
    std::string hostPath() const override { return end_->hostPath(); }
    std::size_t read(std::span<std::uint8_t> into, dongle::Time most) override {
        const std::size_t count = end_->read(into, most);
        const std::lock_guard guard(record_->mutex);
        record_->bytes += kxorbeta_if::asText(into.first(count));
        return count;
    }
    std::size_t write(std::span<const std::uint8_t> bytes) override { return end_->write(bytes); }
    bool hostPresent() override { return end_->hostPresent(); }
    void hangUp() override { end_->hangUp(); }

  private:
    std::unique_ptr<dongle::Transport> end_;
    std::shared_ptr<Record> record_;
};

/// One step of a journey. What is expected is everything that happens until the next step.
struct Step {
    const char* what;
    std::function<int()> call = [] { return 1; };
    int result = 1;
    std::string bytes = {};               ///< what the dongle gets
    std::string answer = {};              ///< what the dongle then sends by itself
    std::vector<std::string> calls = {};  ///< what reaches the host
};

/// Text with the zero byte that ends the dongle's text commands.
std::string zeroEnded(const std::string& text) {
    return text + '\0';
}

std::string enveloped(int index, const dongle::Bytes& payload) {
    const dongle::Bytes frame = dongle::dataEnvelope(index, payload);
    return {frame.begin(), frame.end()};
}

class Journey : public testing::Test {
  protected:
    Journey() : line_(test::plugLine()) {
        // The headsets say nothing by themselves.
        for (auto& headset : settings_.headsets) {
            headset.sampleRate = 0;
            headset.batteryInterval = headset.postInterval = 0ms;
        }
        settings_.headsets[0].index = 3;
        settings_.replies.scanDuration = 60ms;
        settings_.replies.connectDuration = 10ms;
        calls.take();
        SDK_SetRawDataCallback([](int device, int channel, int* samples, int count) {
            calls.add(raw(device, channel, {samples, samples + count}));
        });
        SDK_SetPostDataCallback([](int device, unsigned char value1, unsigned char value2, unsigned char value3,
                                   unsigned char value4, unsigned* values) {
            Bands bands;
            std::copy_n(values, bands.size(), bands.begin());
            calls.add(post(device, {value1, value2, value3, value4}, bands));
        });
        SDK_SetBattInfoCallback(
            [](int device, unsigned level, unsigned value) { calls.add(battery(device, level, value)); });
        SDK_SetEventCallback([](unsigned code, unsigned value) { calls.add(event(code, value)); });
    }

    ~Journey() override {
        SDK_Cleanup();
        for (DeviceInfo info{}; SDK_GetConnectedDevice(0, &info) == 1;) {
            SDK_DisconnectDevice(info.address);
        }
        SDK_SetRawDataCallback(nullptr);
        SDK_SetPostDataCallback(nullptr);
        SDK_SetBattInfoCallback(nullptr);
        SDK_SetEventCallback(nullptr);
        sdk_.core.timing = {};
        kxorbeta_if::logCloseFile(kxorbeta_if::kLogFile);
    }

    void plug() {
        dongle_ = std::make_unique<dongle::Runner>(
            settings_, std::make_unique<RecordingEnd>(std::move(line_.dongleEnd), received_));
    }

    std::size_t receivedCount() {
        const std::lock_guard guard(received_->mutex);
        return received_->bytes.size();
    }

    /// What the dongle got, in hexadecimal, so that a difference can be read.
    static std::string hex(const std::string& text) {
        return kxorbeta_if::hexText({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    }

    void play(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            SCOPED_TRACE(step.what);
            EXPECT_EQ(step.call(), step.result);
            EXPECT_TRUE(test::eventually([&] { return receivedCount() >= step.bytes.size(); }));
            if (!step.answer.empty()) {
                dongle_->with([&](dongle::Engine& engine) { engine.sendRaw(step.answer); });
            }
            EXPECT_TRUE(test::eventually([&] { return calls.count() >= step.calls.size(); }));
            EXPECT_EQ(calls.take(), step.calls);
            const std::lock_guard guard(received_->mutex);
            EXPECT_EQ(hex(std::exchange(received_->bytes, {})), hex(step.bytes));
        }
    }

    Step connectPort() {
        return {.what = "open", .call = [this] { return SDK_ConnectPort(line_.hostPort.c_str()); }};
    }
    static Step connectDevice() {
        return {.what = "connect",
                .call = [] { return SDK_ConnectDevice("A1:B2:C3:D4:E5:01", -7); },
                .bytes = zeroEnded("AT+GRPCONN=A1B2C3D4E501-7"),
                .calls = {event(2, 3), event(4, 0)}};
    }

    kxorbeta_if::SdkContext& sdk_ = kxorbeta_if::processContext();
    test::WorkingFolder folder_;
    test::TestLine line_;
    std::shared_ptr<RecordingEnd::Record> received_ = std::make_shared<RecordingEnd::Record>();
    dongle::Settings settings_ = dongle::defaultSettings(2);
    std::unique_ptr<dongle::Runner> dongle_;
};

TEST_F(Journey, EveryByteThatTheDongleGets) {
    sdk_.core.timing.linkReadTimeoutMs = 2;  // 31 of these part two commands
    plug();
    play({
        {.what = "set up", .call = SDK_Init},
        connectPort(),
        {.what = "open already", .call = [this] { return SDK_ConnectPort(line_.hostPort.c_str()); }, .result = 0},
        {.what = "scan", .call = SDK_ScanDevices, .bytes = zeroEnded("AT+SCAN")},
        {.what = "scan again", .call = SDK_ScanDevices, .bytes = zeroEnded("AT+SCAN")},
        connectDevice(),
    });
    DeviceInfo info{};
    EXPECT_EQ(SDK_GetScanDevicesCount(), 2);
    ASSERT_EQ(SDK_GetScanDevice(1, &info), 1);
    EXPECT_STREQ(info.address, "A1B2C3D4E502");
    EXPECT_STREQ(info.name, "XAI-02");
    EXPECT_EQ(info.option, 1);
    EXPECT_EQ(info.index, 0);
    EXPECT_EQ(info.state, 0);
    ASSERT_EQ(SDK_GetConnectedDevice(0, &info), 1);
    EXPECT_STREQ(info.address, "A1B2C3D4E501");
    EXPECT_STREQ(info.name, "");
    EXPECT_EQ(info.option, -7);

    const struct {
        unsigned target;
        int code;
        const char* envelope;
        std::vector<int> frame;
    } commands[] = {
        {.target = 3, .code = 0x21, .envelope = "AT+CTL3:", .frame = {0xAA, 0xCC, 3, 0, 0, 0, 0x21, 0xDB}},
        {.target = 0, .code = 0xFE, .envelope = "AT+CTLAL:", .frame = {0xAA, 0xCC, 3, 0, 0, 0, 0xFE, 0xFE}},
        {.target = 12, .code = 0, .envelope = "AT+CTL11:", .frame = {0xAA, 0xCC, 3, 0, 0, 0, 0, 0xFC}},
        {.target = 0x102, .code = 5, .envelope = "AT+CTL1:", .frame = {0xAA, 0xCC, 3, 0, 0, 0, 5, 0xF7}},
    };
    for (const auto& c : commands) {
        const std::string frame(c.frame.begin(), c.frame.end());
        play({{.what = c.envelope,
               .call = [&] { return SDK_SendCommand(c.target, static_cast<unsigned char>(c.code)); },
               .bytes = c.envelope + frame}});
    }

    const struct {
        int length;
        std::vector<int> frame;  // what of the payload 0x11, 0x12, ... and the code 0x42 is sent; nothing when refused
    } payloads[] = {
        {.length = 0, .frame = {0xAA, 0xCC, 3, 0, 0, 0, 0x42, 0xBA}},
        {.length = 1, .frame = {0xAA, 0xCC, 3, 0, 0, 0x11, 0x42, 0xA9}},
        {.length = 2, .frame = {0xAA, 0xCC, 3, 0, 0x11, 0x12, 0x42, 0x97}},
        {.length = 3, .frame = {0xAA, 0xCC, 3, 0x11, 0x12, 0x13, 0x42, 0x84}},
        {.length = 4, .frame = {0xAA, 0xCC, 3, 0x11, 0x12, 0x13, 0x14, 0xB2}},
        {.length = 5, .frame = {}},
        {.length = 6, .frame = {}},
        {.length = 7, .frame = {}},
        {.length = 9, .frame = {}},
        {.length = 8, .frame = {0xAA, 0xCC, 3, 0xFF, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0, 0, 0x42, 0x17}},
        {.length = 10,
         .frame = {0xAA, 0xCC, 3, 0xFF, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x42, 0xE4}},
        {.length = 11,
         .frame = {0xAA, 0xCC, 3, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x42, 0xC8}},
        {.length = 12,
         .frame = {0xAA, 0xCC, 3, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0xEE}},
        {.length = 13, .frame = {}},
        {.length = 255, .frame = {}},
    };
    std::array<unsigned char, 255> payload;
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<unsigned char>(0x11 + i);
    }
    for (const auto& c : payloads) {
        SCOPED_TRACE(c.length);
        const std::string frame(c.frame.begin(), c.frame.end());
        unsigned char* const bytes = c.length == 0 ? nullptr : payload.data();
        play({{.what = "payload",
               .call = [&] { return SDK_SendCommandWithPayload(2, 0x42, bytes, static_cast<unsigned char>(c.length)); },
               .result = 0,
               .bytes = frame.empty() ? frame : "AT+CTL2:" + frame}});
    }

    play({
        {.what = "no payload", .call = [] { return SDK_SendCommandWithPayload(1, 1, nullptr, 4); }, .result = 0},
        {.what = "another headset", .call = [] { return SDK_DisconnectDevice("A1B2C3D4E502"); }, .result = 0},
        {.what = "drop",
         .call = [] { return SDK_DisconnectDevice("A1B2C3D4E501"); },
         .bytes = zeroEnded("AT+DISDEV=A1B2C3D4E501"),
         .calls = {event(1, 0)}},
        {.what = "clean up",
         .call =
             [] {
                 SDK_Cleanup();
                 return SDK_GetConnectedDevicesCount();
             },
         .result = 0,
         .bytes = zeroEnded("AT+DISCONN"),
         .calls = {event(5, 0)}},
        {.what = "closed", .call = SDK_ScanDevices, .result = 0},
    });
    EXPECT_EQ(SDK_GetScanDevicesCount(), 2) << "a scan that fails leaves the list as it was";
}

TEST_F(Journey, EveryArgumentThatTheHostGets) {
    std::array<std::int16_t, 112> ramp;
    for (std::size_t i = 0; i < ramp.size(); ++i) {
        ramp[i] = static_cast<std::int16_t>(static_cast<int>(i) * 577 - 32000);  // both signs, every byte different
    }
    const Samples samples(ramp.begin(), ramp.end());
    const auto single = [&](int device, int channel, std::uint8_t counter) {
        return enveloped(device, dongle::singleChannelFrame(channel, ramp, counter));
    };
    const std::string packet = raw(15, 9, samples), substitute = raw(15, 9, Samples(112));
    std::vector<std::string> multi = {raw(4, -3, Samples(336))};  // stands for the one held back
    for (int channel = 0; channel < 3; ++channel) {
        Samples own;
        for (std::size_t i = 0; i < 37; ++i) {
            own.push_back(samples[3 * i + static_cast<std::size_t>(channel)]);
        }
        multi.push_back(raw(4, channel, own));
    }
    const Bands bands = {0, 1, 0x123456, 0xFFFFFF, 0xFEDCBA, 0x010203, 0x800000, 0x7F};
    const auto postSent = [&](std::uint8_t selector) {
        return enveloped(6, dongle::postFrame({.value1 = 0xF1,
                                               .selector = selector,
                                               .value2 = 0x22,
                                               .value3 = 0x33,
                                               .value4 = 0x44,
                                               .bands = bands}));
    };
    const std::string batterySent = enveloped(5, dongle::batteryFrame(0xC8, 43)), charge = battery(5, 0xC8, 4300);
    dongle::Bytes half = dongle::singleChannelFrame(1, ramp, 0);
    half.resize(100);

    // Behind data that must not arrive, it shows that they have been decoded.
    const dongle::Bytes responseFrame = dongle::longResponse(0xEE, 0x21, std::array<std::uint8_t, 3>{7, 8, 9});
    const std::string responseSent = enveloped(3, responseFrame), answered = response(3, 0x21, responseFrame);
    const auto watchResponses = [&] {
        sdk_.core.callbacks.response = [](void*, int device, unsigned char command, unsigned char* frame, int length) {
            calls.add(response(device, command, {frame, frame + length}));
        };
        return 1;
    };

    plug();
    play({
        {.what = "set up", .call = SDK_Init},
        {.what = "not connected", .call = SDK_StartDataCollection, .result = 0},
        connectPort(),
        connectDevice(),
        {.what = "response", .answer = responseSent + "Service connected. A1B2C3D4E502,2\n", .calls = {event(2, 2)}},
        {.what = "gate closed",
         .call = watchResponses,
         .answer = batterySent + postSent(8) + single(15, 9, 250) + responseSent,
         .calls = {answered}},
        {.what = "start", .call = SDK_StartDataCollection},
        {.what = "battery", .answer = batterySent, .calls = {charge}},
        {.what = "post", .answer = postSent(8), .calls = {post(0, {0xF1, 0x22, 0x33, 0x44}, bands)}},
        {.what = "post without its fourth value",
         .answer = postSent(7),
         .calls = {post(0, {0xF1, 0x22, 0x33, 0}, bands)}},
        {.what = "raw", .answer = single(15, 9, 9), .calls = {packet}},
        {.what = "raw, two lost", .answer = single(15, 9, 12), .calls = {substitute, substitute, packet}},
        {.what = "raw, three lost", .answer = single(15, 9, 16), .calls = {packet}},
        {.what = "multi-channel, held back", .answer = enveloped(4, dongle::multiChannelFrame(3, ramp, 77))},
        {.what = "multi-channel", .answer = enveloped(4, dongle::multiChannelFrame(3, ramp, 78)), .calls = multi},
        {.what = "joins", .answer = "Service connected. A1B2C3D4E502,15\n", .calls = {event(2, 15)}},
        {.what = "leaves", .answer = "Client disconnected,A1B2C3D4E502,19\r\n", .calls = {event(1, 0)}},
        // Starting again forgets the counters and what half frames left.
        {.what = "half a frame", .answer = enveloped(5, half) + single(15, 9, 17), .calls = {packet}},
        {.what = "start again", .call = SDK_StartDataCollection},
        {.what = "nothing lost", .answer = single(15, 9, 19), .calls = {packet}},
        {.what = "nothing left over", .answer = batterySent, .calls = {charge}},
        {.what = "stop",
         .call = SDK_StopDataCollection,
         .answer = batterySent + single(15, 9, 20) + responseSent,
         .calls = {answered}},
        {.what = "start once more", .call = SDK_StartDataCollection, .answer = single(15, 9, 1), .calls = {packet}},
        {.what = "disconnect",
         .call =
             [] {
                 SDK_DisconnectPort();
                 return SDK_GetConnectedDevicesCount();
             },
         .bytes = zeroEnded("AT+DISCONN"),
         .calls = {event(5, 0)}},
        {.what = "over", .call = SDK_StartDataCollection, .result = 0},
        // With collection off the dongle is not told, so its headsets stay and a group is still connected.
        connectPort(),
        connectDevice(),
        {.what = "disconnect without collection",
         .call =
             [] {
                 SDK_DisconnectPort();
                 return SDK_GetConnectedDevicesCount();
             },
         .result = 2},
        connectPort(),
        {.what = "group still connected", .call = [] { return SDK_ConnectDevice("A1B2C3D4E501", 1); }, .result = 0},
    });
    const std::string log = folder_.read(kxorbeta_if::kLogFile);
    for (const char* line :
         {"WARN| No device connected", "Orbeta record start", "Orbeta record stop", "Disconnect device and dongle."}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
}

TEST_F(Journey, WithoutAThreadScanAndConnectionFail) {
    plug();
    play({{.what = "set up", .call = SDK_Init}, connectPort()});
    const auto usual = std::exchange(sdk_.core.startThread, [](auto) -> std::thread {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    });
    EXPECT_EQ(SDK_ScanDevices(), 0);
    sdk_.core.flags.scanning = false;  // it stays set, which is no concern of this test
    EXPECT_EQ(SDK_ConnectDevice("A1B2C3D4E501", 0), 0);
    sdk_.core.flags.connecting = false;
    sdk_.core.startThread = usual;
    EXPECT_EQ(SDK_GetConnectedDevicesCount(), 0);
}

TEST_F(Journey, AConnectionWaitsAHundredSecondsOfReads) {
    sdk_.core.timing.connectionReadsPerSecond = 1;
    sdk_.core.timing.connectionReadTimeoutMs = 4;
    settings_.replies.connect = false;
    plug();
    play({{.what = "set up", .call = SDK_Init}, connectPort()});
    const auto begin = std::chrono::steady_clock::now();
    play({{.what = "silent dongle",
           .call = [] { return SDK_ConnectDevice("A1B2C3D4E501", 0); },
           .result = 0,
           .bytes = zeroEnded("AT+GRPCONN=A1B2C3D4E501")}});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 400ms);
    EXPECT_EQ(SDK_GetConnectedDevicesCount(), 0);
}

std::atomic<long> rawCalls{0}, eventCalls{0};
std::atomic<unsigned> lastEvent{0};

void countRaw(int, int, int*, int) {
    ++rawCalls;
}

/// Data flows, to callbacks that do what hosts do.
class Stream : public Journey {
  protected:
    Stream() {
        settings_.headsets[0].sampleRate = 2000;
        settings_.headsets[0].index = 1;
        settings_.replies.streamDelay = 10ms;
        rawCalls = eventCalls = 0;
        SDK_SetRawDataCallback(countRaw);
    }
    void stream() {
        plug();
        SDK_Init();
        ASSERT_EQ(SDK_ConnectPort((R"(\\.\)" + line_.hostPort).c_str()), 1) << "a search's result is a port name, too";
        ASSERT_EQ(SDK_ConnectDevice("A1B2C3D4E501", 1), 1);
        ASSERT_EQ(SDK_StartDataCollection(), 1);
        ASSERT_TRUE(moreData());
    }
    static bool moreData() {
        const long before = rawCalls;
        return test::eventually([&] { return rawCalls > before + 20; });
    }
};

TEST_F(Stream, CallbacksThatThrowOrBlockCostOnlyTheirCalls) {
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        throw std::runtime_error("a host's mistake");
    });
    stream();
    const auto sent = [&] { return dongle_->with([](dongle::Engine& e) { return e.headsetCounters(1).rawSent; }); };
    const std::uint64_t sentBefore = sent();
    const long callsBefore = rawCalls;
    ASSERT_TRUE(test::eventually([&] { return sent() > sentBefore + 300; }));
    dongle_->with([](dongle::Engine& e) { e.setSilent(true); });
    // A callback that cost the rest of its block would cost nine of ten.
    EXPECT_TRUE(test::eventually([&] { return rawCalls - callsBefore > 200; }));
    dongle_->with([](dongle::Engine& e) { e.setSilent(false); });
    SDK_SetEventCallback([](unsigned, unsigned) {
        ++eventCalls;
        throw 1;
    });
    dongle_->with([](dongle::Engine& e) { e.join(2); });
    EXPECT_TRUE(test::eventually([&] { return eventCalls >= 1; }));
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        std::this_thread::sleep_for(50ms);
    });
    EXPECT_TRUE(moreData());
    SDK_SetRawDataCallback(countRaw);
    EXPECT_TRUE(moreData()) << "the stream recovers";
    const long before = eventCalls;
    dongle_->with([](dongle::Engine& e) { e.disconnect(2); });
    EXPECT_TRUE(test::eventually([&] { return eventCalls > before; })) << "the event lock was given back";
}

TEST_F(Stream, CallbacksMayCallTheLibrary) {
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        DeviceInfo info{};
        SDK_StartDataCollection();
        SDK_GetConnectedDevice(0, &info);
        SDK_GetScanDevicesCount();
        SDK_GetVersion();
        if (rawCalls == 1) {
            SDK_SendCommand(1, 0x21);
            unsigned char payload[3] = {1, 2, 3};
            SDK_SendCommandWithPayload(1, 0x22, payload, 3);
        }
        SDK_SetBattInfoCallback(nullptr);
    });
    SDK_SetEventCallback([](unsigned code, unsigned) {
        lastEvent = code;
        ++eventCalls;
        SDK_StartDataCollection();
        SDK_StopDataCollection();
        SDK_StartDataCollection();
    });
    stream();
    EXPECT_TRUE(test::eventually(
        [&] { return dongle_->with([](dongle::Engine& e) { return e.headsetCounters(1).responses; }) == 2; }));
    // A data callback may even end the session.
    SDK_SetRawDataCallback([](int, int, int*, int) {
        SDK_SetRawDataCallback(countRaw);
        SDK_Cleanup();
    });
    EXPECT_TRUE(test::eventually([&] { return lastEvent == 5; }));
    EXPECT_EQ(SDK_Init(), 1);
}

}  // namespace
