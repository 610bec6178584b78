#include <array>
#include <functional>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "link/gap_read.h"
#include "serial_port_test_support.h"

// The life cycle over a port whose every answer the test decides.

namespace kxorbeta_if {
namespace {

struct Script {
    std::function<int(std::uint32_t timeoutMs)> read = [](std::uint32_t) { return 0; };
    std::function<int(steady_clock::time_point deadline)> write = [](steady_clock::time_point) { return 1; };
    enum { kAll, kReadSettings, kApplySettings, kApplyTimeouts } failing = kAll;
    std::atomic<int> open{0};
    std::atomic<bool> closing{false};
};

Script* script = nullptr;

class ScriptedPort : public NativePort {
  public:
    ScriptedPort() { script->closing = false, ++script->open; }
    ~ScriptedPort() override { --script->open; }
    bool readSettings() override { return script->failing != Script::kReadSettings || fail(101); }
    bool applySettings(const LineSettings&) override { return script->failing != Script::kApplySettings || fail(102); }
    bool applyTimeouts() override { return script->failing != Script::kApplyTimeouts || fail(103); }
    int read(void*, std::uint32_t, std::uint32_t timeoutMs) override { return script->read(timeoutMs); }
    int readAvailable(void*, std::uint32_t, steady_clock::time_point) override { return script->read(0); }
    int write(const void*, std::size_t, steady_clock::time_point deadline, const std::atomic<std::uint32_t>*) override {
        return script->write(deadline);
    }
    void wake() override {}
    void wakeAll() override { script->closing = true; }
};

class SerialPortLife : public testing::Test {
  protected:
    SerialPortLife() { script = &script_; }
    ~SerialPortLife() override {
        port_.close();
        script = nullptr;
    }

    Port::Result open() { return openPort(port_, "any"); }

    Script script_;
    SerialPort port_{"", [](const char*, const char*) {
                         return NativeOpening{std::make_unique<ScriptedPort>(), 0, false};
                     }};
};

TEST_F(SerialPortLife, TheSystemsReasonIsToldForThePortAndForItsSettings) {
    const struct {
        decltype(Script::failing) failing;
        Port::Result result;
        int systemError;
    } cases[] = {{Script::kReadSettings, Port::kReadSettingsFailed, 101},
                 {Script::kAll, Port::kOpened, 0},
                 {Script::kApplyTimeouts, Port::kTimeoutsFailed, 103},
                 {Script::kApplySettings, Port::kApplyFailed, 102}};
    for (const auto& c : cases) {
        script_.failing = c.failing;
        EXPECT_EQ(open(), c.result);
        EXPECT_EQ(port_.systemError(), c.systemError);
        EXPECT_TRUE(port_.isOpen());
    }
    EXPECT_EQ(port_.open("any", 250000, 3, 0, 0), Port::kBadBaud);
    EXPECT_EQ(port_.systemError(), 0) << "the system was not asked";

    SerialPort missing("", [](const char*, const char*) { return NativeOpening{nullptr, 2, true}; });
    EXPECT_EQ(openPort(missing, "any"), Port::kNoSuchPort);
    EXPECT_EQ(missing.systemError(), 2);
}

TEST_F(SerialPortLife, AThrowInACallInFlightLeavesThePortGoodForClosing) {
    script_.read = [](std::uint32_t) -> int { throw std::bad_alloc(); };
    script_.write = [](steady_clock::time_point) -> int { throw std::bad_alloc(); };
    ASSERT_EQ(open(), Port::kOpened);
    EXPECT_THROW(read(port_, 8), std::bad_alloc);
    EXPECT_THROW(readAvailable(port_, 8), std::bad_alloc);
    EXPECT_THROW(port_.write("x", 1), std::bad_alloc);
    script_.write = [](steady_clock::time_point) { return 1; };
    EXPECT_EQ(port_.write("x", 1), Port::kWritten) << "the turn to write was given back";
    port_.close();
    EXPECT_EQ(script_.open, 0);
}

TEST_F(SerialPortLife, ADriverThatAnswersEarlyWithNothingIsAskedAgainUntilTheTimeIsOver) {
    int asked = 0;
    script_.read = [&](std::uint32_t) { return ++asked, 0; };
    ASSERT_EQ(open(), Port::kOpened);
    const auto start = steady_clock::now();
    EXPECT_EQ(read(port_, 8, 100), "");
    EXPECT_GE(steady_clock::now() - start, 100ms);
    EXPECT_LE(asked, 11) << "a driver like that must not keep a core busy";

    std::uint32_t left = 0;
    script_.read = [&, first = true](std::uint32_t timeoutMs) mutable {
        left = timeoutMs;
        return std::exchange(first, false) ? 0 : 5;
    };
    EXPECT_EQ(read(port_, 8).size(), 5u) << "bytes that come after the early answer";
    EXPECT_LT(left, kHourMs);
    script_.read = [&](std::uint32_t) { return Port::kReadFailed; };
    EXPECT_EQ(read(port_, 8), std::to_string(Port::kReadFailed)) << "a line that is gone takes no time";
}

TEST_F(SerialPortLife, ClosingEndsTheRestOfAReadAndTheWaitForAnotherThreadsWrite) {
    std::atomic<bool> reading{false}, writing{false};
    script_.read = [&](std::uint32_t) { return reading = true, 0; };
    script_.write = [&](steady_clock::time_point) {
        return writing = true, test::eventually([&] { return script_.closing.load(); }) ? Port::kWriteFailed : 99;
    };
    ASSERT_EQ(open(), Port::kOpened);
    {
        const auto write = [&] { EXPECT_EQ(port_.write("x", 1), Port::kWriteFailed); };
        const std::jthread reader([&] { EXPECT_EQ(read(port_, 8), ""); });
        const std::jthread writer(write);
        ASSERT_TRUE(test::eventually([&] { return reading && writing; }));
        for (const char* const other : {"y", "z"}) {
            EXPECT_EQ(port_.write(other, 1, steady_clock::now() + 20ms), Port::kWriteFailed)
                << "the first does not end";
        }
        const std::jthread waiting(write);
        EXPECT_TRUE(port_.isOpen());
        port_.close();
    }
    EXPECT_FALSE(port_.isOpen());
    EXPECT_EQ(script_.open, 0);
}

TEST(GapRead, EndsWithAGapAFullBufferOrTheLineAndKeepsWhatCame) {
    const struct {
        std::vector<int> pieces;
        int result;
    } cases[] = {{{0}, 0}, {{3, 0, 9}, 3}, {{3, 2, 0}, 5}, {{4, 4, 9}, 8}, {{-2}, -2}, {{3, Port::kReadFailed}, 3}};
    for (const auto& c : cases) {
        std::array<char, 8> buffer{};
        std::size_t next = 0;
        const auto start = steady_clock::now();
        const int result = readWithGap(buffer.data(), 8, 60000, [&](void* into, std::uint32_t room, auto deadline) {
            EXPECT_EQ(static_cast<char*>(into) + room, buffer.data() + buffer.size());
            EXPECT_EQ(deadline<start + 50s, next> 0) << "the first byte may take the whole time, others the gap";
            return c.pieces[next++];
        });
        EXPECT_EQ(result, c.result);
    }
}

}  // namespace
}  // namespace kxorbeta_if
