#include <cstring>
#include <stdexcept>

#include "session/session.h"
#include "support/eventually.h"
#include "support/testing.h"

// Ports that take no bytes, refuse them, or go away while they are written to.

namespace {

using namespace std::chrono_literals;
using velmora::Clock;
using velmora::deadlineIn;

struct Script {
    enum class Write { kTake, kStall, kRefuse, kRefuseAndHangUp };

    std::atomic<Write> write{Write::kTake};
    std::atomic<int> openings{0}, writes{0};
    std::atomic<bool> open{false}, hungUp{false};
    std::atomic<const char*> says{nullptr};
    std::atomic<Clock::Time> writeUntil{};
};

class StuckPort : public kxorbeta_if::Port {
  public:
    explicit StuckPort(Script& script) : script_(script) {}
    bool isOpen() const override { return script_.open; }
    Result open(const char*, std::uint32_t, int, int, int) override {
        ++script_.openings;
        script_.hungUp = false;
        script_.open = true;
        return kOpened;
    }
    int systemError() const override { return script_.hungUp ? 71 : 0; }
    int read(void*, std::uint32_t, std::uint32_t) override { return 0; }
    int readAvailable(void* buffer, std::uint32_t, Clock::Time deadline) override {
        for (; script_.open && std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(5ms)) {
            if (const char* const text = script_.says.exchange(nullptr)) {
                std::memcpy(buffer, text, std::strlen(text));
                return static_cast<int>(std::strlen(text));
            }
            if (script_.hungUp) {
                return kReadFailed;
            }
        }
        return 0;
    }
    int write(const void*, std::size_t, Clock::Time deadline, const std::atomic<std::uint32_t>* stop) override {
        script_.writeUntil = deadline;
        ++script_.writes;
        const auto stopped = [&] { return !script_.open || (stop != nullptr && *stop != 0); };
        while (script_.write == Script::Write::kStall && !stopped() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(1ms);
        }
        script_.hungUp = script_.write == Script::Write::kRefuseAndHangUp;
        return script_.write == Script::Write::kTake ? kWritten : kWriteFailed;
    }
    void wake() override {}
    void close() override { script_.open = false; }

  private:
    Script& script_;
};

class StuckPortTest : public testing::Test {
  protected:
    void open(velmora::Settings settings = {}) {
        velmora::Environment environment;
        environment.makePort = [this] { return std::make_unique<StuckPort>(script); };
        environment.listPorts = [](velmora::Environment::Holders) { return std::vector<velmora_port>(); };
        session = std::make_unique<velmora::Session>(environment, settings);
        ASSERT_TRUE(session->open("any").ok());
    }
    velmora_status request(Clock::Time deadline = Clock::kNever, velmora::Signal* cancel = nullptr) {
        velmora_record response;
        return session->request(1, 3, {}, false, deadline, cancel, response).status;
    }
    void expectGone(std::uint32_t code) {
        velmora_record record{};
        std::size_t got = 0;
        EXPECT_EQ(session->read(&record, sizeof record, 1, 1, 20'000, nullptr, got), VELMORA_OK);
        EXPECT_EQ(record.code, VELMORA_EVENT_GONE);
        EXPECT_EQ(record.values[0], code);
    }

    Script script;
    std::unique_ptr<velmora::Session> session;
};

TEST_F(StuckPortTest, AWriteThatTheLineDoesNotTakeEndsWithItsCall) {
    open();
    script.write = Script::Write::kStall;
    velmora::Signal cancel;
    const Clock::Time deadline = deadlineIn(100);
    EXPECT_EQ(request(deadline), VELMORA_TIMEOUT);
    EXPECT_EQ(script.writeUntil.load(), deadline);
    const auto whileWriting = [&](int write, const std::function<void()>& what) {
        return std::thread([this, write, what] {
            EXPECT_TRUE(test::eventually([&] { return script.writes == write; }));
            what();
        });
    };
    std::thread canceller = whileWriting(2, [&] { cancel.set(); });
    EXPECT_EQ(request(Clock::kNever, &cancel), VELMORA_CANCELLED);
    canceller.join();
    std::thread closer = whileWriting(3, [&] { session->close(); });
    EXPECT_EQ(request(), VELMORA_CLOSED);
    closer.join();
}

TEST_F(StuckPortTest, AWriteThatFailsOnALineThatIsGoneSaysSo) {
    open();
    script.write = Script::Write::kRefuse;
    EXPECT_EQ(session->send(1, 3, {}, false).status, VELMORA_FAILED);
    script.write = Script::Write::kRefuseAndHangUp;
    EXPECT_EQ(session->send(1, 3, {}, false).status, VELMORA_GONE);
    expectGone(71);
    // A raised cancel ends a reopening before it looks for the dongle, which is there again.
    velmora::Signal cancel;
    cancel.set();
    EXPECT_EQ(session->reopen(Clock::kNever, &cancel).status, VELMORA_CANCELLED);
    EXPECT_EQ(script.openings, 1);
    EXPECT_TRUE(session->reopen(Clock::kNever, nullptr).ok());
}

TEST_F(StuckPortTest, ALogFunctionThatThrowsLeavesNothingBehind) {
    velmora::Settings settings;
    settings.log = [](void*, std::int64_t, const char* text) {
        if (!std::string_view(text).starts_with("opened")) {
            throw std::runtime_error(text);
        }
    };
    open(settings);
    EXPECT_THROW(request(), std::runtime_error);
    EXPECT_THROW(request(), std::runtime_error) << "the first is over";
    EXPECT_EQ(script.writes, 0);
    script.says = "Bootup\n";  // on the reading thread
    expectGone(0);
}

}  // namespace
