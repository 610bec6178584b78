#include <numeric>
#include <stdexcept>
#include <system_error>

#include "base/log.h"
#include "dongle/dongle_runner.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/log_setup.h"
#include "sdk/sdk_context.h"
#include "support/eventually.h"
#include "support/receive_session.h"
#include "support/test_line.h"
#include "support/testing.h"
#include "support/working_folder.h"

// The border to the host: each result, each byte that the dongle gets, and each argument of each callback.

namespace {

using namespace std::chrono_literals;
using namespace test;

/// Text that one thread writes and another reads.
class SharedText {
  public:
    void add(const std::string& more) {
        const std::lock_guard guard(mutex_);
        text_ += more;
    }
    std::size_t size() {
        const std::lock_guard guard(mutex_);
        return text_.size();
    }
    std::string take() {
        const std::lock_guard guard(mutex_);
        return std::exchange(text_, {});
    }

  private:
    std::mutex mutex_;
    std::string text_;
};
SharedText calls;  ///< of the host's callbacks, a line for each

std::string eventCall(unsigned code, unsigned value) {
    return "event " + std::to_string(code) + ": " + std::to_string(value) + "\n";
}

/// The dongle's end of a line that keeps what the host sent, byte for byte.
class RecordingEnd : public dongle::Transport {
  public:
    RecordingEnd(std::unique_ptr<dongle::Transport> end, SharedText& received)
        : end_(std::move(end)), received_(received) {}
    std::string hostPath() const override { return end_->hostPath(); }
    std::size_t read(std::span<std::uint8_t> into, dongle::Time most) override {
        const std::size_t count = end_->read(into, most);
        received_.add({into.begin(), into.begin() + static_cast<std::ptrdiff_t>(count)});
        return count;
    }
    std::size_t write(std::span<const std::uint8_t> bytes) override { return end_->write(bytes); }
    bool hostPresent() override { return end_->hostPresent(); }
    void hangUp() override { end_->hangUp(); }

  private:
    std::unique_ptr<dongle::Transport> end_;
    SharedText& received_;
};

/// One step of a journey. What is expected is everything that happens until the next step.
struct Step {
    const char* what;
    std::function<int()> call = [] { return 1; };
    int result = 1;
    std::string bytes = {};   ///< what the dongle gets
    std::string answer = {};  ///< what the dongle then sends by itself
    std::string calls = {};   ///< what reaches the host
};

/// Text with the zero byte that ends the dongle's text commands.
std::string zeroEnded(const std::string& text) {
    return text + '\0';
}

const std::string kDropAll = zeroEnded("AT+DISCONN"), kLinkEnds = eventCall(5, 0);

std::string enveloped(int device, const Bytes& payload) {
    return stringOf(envelope(device, payload));
}

/// `envelope` with the frame of these hexadecimal digits behind it.
std::string command(const char* envelope, const char* frame) {
    return envelope + stringOf(fromHex(frame));
}

/// How many headsets are connected after it.
int disconnectPort() {
    SDK_DisconnectPort();
    return SDK_GetConnectedDevicesCount();
}

class Journey : public testing::Test {
  protected:
    Journey() : line_(plugLine()) {
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
            calls.add(rawCall(device, channel, {samples, samples + count}));
        });
        SDK_SetPostDataCallback(
            [](int device, unsigned char value1, unsigned char value2, unsigned char value3, unsigned char value4,
               unsigned* bands) { calls.add(postCall(device, value1, value2, value3, value4, bands)); });
        SDK_SetBattInfoCallback(
            [](int device, unsigned level, unsigned value) { calls.add(batteryCall(device, level, value)); });
        SDK_SetEventCallback([](unsigned code, unsigned value) { calls.add(eventCall(code, value)); });
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
        auto end = std::make_unique<RecordingEnd>(std::move(line_.dongleEnd), received_);
        dongle_ = std::make_unique<dongle::Runner>(settings_, std::move(end));
    }

    void play(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            SCOPED_TRACE(step.what);
            EXPECT_EQ(step.call(), step.result);
            EXPECT_TRUE(eventually([&] { return received_.size() >= step.bytes.size(); }));
            if (!step.answer.empty()) {
                dongle_->with([&](dongle::Engine& engine) { engine.sendRaw(step.answer); });
            }
            EXPECT_TRUE(eventually([&] { return calls.size() >= step.calls.size(); }));
            EXPECT_EQ(calls.take(), step.calls);
            EXPECT_EQ(hexOf(bytesOf(received_.take())), hexOf(bytesOf(step.bytes)));
        }
    }

    Step connectPort() {
        return {.what = "open", .call = [this] { return SDK_ConnectPort(line_.hostPort.c_str()); }};
    }
    static Step connectDevice() {
        return {.what = "connect",
                .call = [] { return SDK_ConnectDevice("A1:B2:C3:D4:E5:01", -7); },
                .bytes = zeroEnded("AT+GRPCONN=A1B2C3D4E501-7"),
                .calls = eventCall(2, 3) + eventCall(4, 0)};
    }

    kxorbeta_if::SdkContext& sdk_ = kxorbeta_if::processContext();
    WorkingFolder folder_;
    TestLine line_;
    SharedText received_;
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
    });
    // On a machine so busy that the end of a scan is read together with its lines, these are missed.
    EXPECT_TRUE(eventually([&] {
        play({{.what = "scan again", .call = SDK_ScanDevices, .bytes = zeroEnded("AT+SCAN")}});
        return SDK_GetScanDevicesCount() == 2;
    }));
    play({connectDevice()});
    const auto textOf = [](const DeviceInfo& info) {
        return std::string(info.address) + " '" + info.name + "' " + std::to_string(info.option) + " " +
               std::to_string(info.index) + " " + std::to_string(info.state);
    };
    DeviceInfo info{};
    ASSERT_EQ(SDK_GetScanDevice(1, &info), 1);
    EXPECT_EQ(textOf(info), "A1B2C3D4E502 'XAI-02' 1 0 0");
    ASSERT_EQ(SDK_GetConnectedDevice(0, &info), 1);
    EXPECT_TRUE(textOf(info).starts_with("A1B2C3D4E501 '' -7 ")) << textOf(info);

    // What is sent of the code 0x42 and a payload 0x11, 0x12, ... of this length; others are refused.
    const std::map<int, const char*> frames{{0, "AACC0300000042BA"},
                                            {1, "AACC0300001142A9"},
                                            {2, "AACC030011124297"},
                                            {3, "AACC031112134284"},
                                            {4, "AACC0311121314B2"},
                                            {8, "AACC03FF111213141516171800004217"},
                                            {10, "AACC03FF1112131415161718191A42E4"},
                                            {11, "AACC031112131415161718191A1B42C8"},
                                            {12, "AACC031112131415161718191A1B1CEE"}};
    std::array<unsigned char, 255> payload;
    std::iota(payload.begin(), payload.end(), static_cast<unsigned char>(0x11));
    for (const int length : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 255}) {
        SCOPED_TRACE(length);
        unsigned char* const bytes = length == 0 ? nullptr : payload.data();
        const auto size = static_cast<unsigned char>(length);
        play({{.what = "payload",
               .call = [&] { return SDK_SendCommandWithPayload(2, 0x42, bytes, size); },
               .result = 0,
               .bytes = frames.contains(length) ? command("AT+CTL2:", frames.at(length)) : ""}});
    }

    play({
        {.what = "command",
         .call = [] { return SDK_SendCommand(3, 0x21); },
         .bytes = command("AT+CTL3:", "AACC0300000021DB")},
        {.what = "command to another",
         .call = [] { return SDK_SendCommand(0x102, 5); },
         .bytes = command("AT+CTL1:", "AACC0300000005F7")},
        {.what = "no payload", .call = [] { return SDK_SendCommandWithPayload(1, 1, nullptr, 4); }, .result = 0},
        {.what = "another headset", .call = [] { return SDK_DisconnectDevice("A1B2C3D4E502"); }, .result = 0},
        {.what = "drop",
         .call = [] { return SDK_DisconnectDevice("A1B2C3D4E501"); },
         .bytes = zeroEnded("AT+DISDEV=A1B2C3D4E501"),
         .calls = eventCall(1, 0)},
        {.what = "clean up",
         .call = [] { return SDK_Cleanup(), 0; },
         .result = 0,
         .bytes = kDropAll,
         .calls = kLinkEnds},
        {.what = "closed", .call = SDK_ScanDevices, .result = 0},
    });
    EXPECT_EQ(SDK_GetConnectedDevicesCount(), 0);
    EXPECT_EQ(SDK_GetScanDevicesCount(), 2) << "a scan that fails leaves the list as it was";
}

TEST_F(Journey, EveryArgumentThatTheHostGets) {
    const auto rawSent = [](int counter) { return enveloped(15, Packet{.channel = 9, .counter = counter}.bytes()); };
    const auto multiSent = [](int counter) { return enveloped(4, Packet{.channels = 3, .counter = counter}.bytes()); };
    const std::string packet = Packet{.device = 15, .channel = 9}.calls(), lost = rawCall(15, 9, std::vector<int>(112));
    const std::string heldBack = rawCall(4, -3, std::vector<int>(336)),
                      multi = Packet{.device = 4, .channels = 3}.calls();
    const Post post{0xF1, 8, 0x22, 0x44, 0x33, {0, 1, 0x123456, 0xFFFFFF, 0xFEDCBA, 0x010203, 0x800000, 0x7F}};
    Post three = post;
    three.selector = 7;  // without the fourth value
    const std::string charged = enveloped(5, batteryFrame(0xC8, 43)), charge = batteryCall(5, 0xC8, 4300);
    const Bytes half = part(Packet{.channel = 1}.bytes(), 0, 100);

    // Behind data that must not arrive, it shows that they have been decoded. Seen inside the library, as no host gets
    // it: the only call that does not ask whether collection is on.
    const Bytes response = responseFrame(0xEE, 0x21, Bytes(12, 7));
    const std::string asked = enveloped(3, response), answered = responseCall(3, response);
    const auto watchResponses = [&] {
        sdk_.core.callbacks.response = [](void*, int device, unsigned char, unsigned char* frame, int length) {
            calls.add(responseCall(device, {frame, frame + length}));
        };
        return 1;
    };

    plug();
    play({
        {.what = "set up", .call = SDK_Init},
        {.what = "not connected", .call = SDK_StartDataCollection, .result = 0},
        connectPort(),
        connectDevice(),
        {.what = "response", .answer = asked + "Service connected. A1B2C3D4E502,2\n", .calls = eventCall(2, 2)},
        {.what = "gate closed",
         .call = watchResponses,
         .answer = charged + enveloped(6, postFrame(post)) + rawSent(250) + asked,
         .calls = answered},
        {.what = "start", .call = SDK_StartDataCollection},
        {.what = "battery", .answer = charged, .calls = charge},
        {.what = "post", .answer = enveloped(6, postFrame(post)), .calls = postCall(post)},
        {.what = "post of three", .answer = enveloped(6, postFrame(three)), .calls = postCall(three)},
        {.what = "raw", .answer = rawSent(9), .calls = packet},
        {.what = "raw, two lost", .answer = rawSent(12), .calls = lost + lost + packet},
        {.what = "raw, three lost", .answer = rawSent(16), .calls = packet},
        {.what = "multi-channel, held back", .answer = multiSent(77)},
        {.what = "multi-channel", .answer = multiSent(78), .calls = heldBack + multi},
        {.what = "joins", .answer = "Service connected. A1B2C3D4E502,15\n", .calls = eventCall(2, 15)},
        {.what = "leaves", .answer = "Client disconnected,A1B2C3D4E502,19\r\n", .calls = eventCall(1, 0)},
        // Starting again forgets the counters and what half frames left.
        {.what = "half a frame", .answer = enveloped(5, half) + rawSent(17), .calls = packet},
        {.what = "start again", .call = SDK_StartDataCollection},
        {.what = "nothing lost", .answer = rawSent(19), .calls = packet},
        {.what = "nothing left over", .answer = charged, .calls = charge},
        {.what = "stop", .call = SDK_StopDataCollection, .answer = charged + rawSent(20) + asked, .calls = answered},
        {.what = "start once more", .call = SDK_StartDataCollection, .answer = rawSent(1), .calls = packet},
        {.what = "disconnect", .call = disconnectPort, .bytes = kDropAll, .calls = kLinkEnds},
        {.what = "over", .call = SDK_StartDataCollection, .result = 0},
        // With collection off the dongle is not told, so its headsets stay and a group is still connected.
        connectPort(),
        connectDevice(),
        {.what = "disconnect without collection", .call = disconnectPort, .result = 2},
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
    // Their flags stay set, so all later calls are refused.
    EXPECT_EQ(SDK_ScanDevices(), 0);
    EXPECT_TRUE(sdk_.core.flags.scanning.exchange(false));
    EXPECT_EQ(SDK_ConnectDevice("A1B2C3D4E501", 0), 0);
    EXPECT_TRUE(sdk_.core.flags.connecting.exchange(false));
    sdk_.core.startThread = usual;
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
        return eventually([&] { return rawCalls > before + 20; });
    }
};

TEST_F(Stream, CallbacksThatThrowOrBlockCostOnlyTheirCalls) {
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        throw std::runtime_error("a host's mistake");
    });
    stream();
    const auto sent = [&] { return dongle_->with([](dongle::Engine& e) { return e.headsetCounters(1).rawSent; }); };
    const auto silent = [&](bool on) { dongle_->with([on](dongle::Engine& e) { e.setSilent(on); }); };
    // A callback that cost the rest of its block would cost nine of ten. A busy machine costs some too, or
    // the event, but not always.
    const auto mostCome = [&] {
        const std::uint64_t sentBefore = sent();
        const long callsBefore = rawCalls;
        silent(false);
        EXPECT_TRUE(eventually([&] { return sent() > sentBefore + 300; }));
        silent(true);
        const auto most = static_cast<long>((sent() - sentBefore) * 2 / 3);
        return eventually([&] { return rawCalls - callsBefore > most; }, 2s);
    };
    EXPECT_TRUE(eventually(mostCome));
    SDK_SetRawDataCallback(countRaw);  // slow ones may cost what comes next, the event
    silent(false);
    SDK_SetEventCallback([](unsigned, unsigned) {
        ++eventCalls;
        throw 1;
    });
    const auto told = [&] {
        const long before = eventCalls;
        dongle_->with([](dongle::Engine& e) { e.join(2); });
        return eventually([&] { return eventCalls > before; }, 2s);
    };
    EXPECT_TRUE(eventually(told));
    SDK_SetRawDataCallback([](int, int, int*, int) {
        ++rawCalls;
        std::this_thread::sleep_for(50ms);
    });
    EXPECT_TRUE(moreData());
    SDK_SetRawDataCallback(countRaw);
    EXPECT_TRUE(moreData()) << "the stream recovers";
    EXPECT_TRUE(eventually(told)) << "the event lock was given back";
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
    EXPECT_TRUE(eventually(
        [&] { return dongle_->with([](dongle::Engine& e) { return e.headsetCounters(1).responses; }) == 2; }));
    // A data callback may even end the session.
    SDK_SetRawDataCallback([](int, int, int*, int) {
        SDK_SetRawDataCallback(countRaw);
        SDK_Cleanup();
    });
    EXPECT_TRUE(eventually([&] { return lastEvent == 5; }));
    EXPECT_EQ(SDK_Init(), 1);
}

}  // namespace
