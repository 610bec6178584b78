#include <fcntl.h>
#include <pty.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "dongle/dongle_runner.h"
#include "dongle/port_link.h"
#include "environment_fixture.h"
#include "session/dongle_finder.h"
#include "session/session.h"
#include "support/eventually.h"
#include "support/test_line.h"
#include "support/testing.h"

// What needs ports that come and go: pseudo-terminals do.

namespace {

using namespace std::chrono_literals;
using test::eventually;
using velmora::deadlineIn;

dongle::Settings quickDongle() {
    dongle::Settings settings = dongle::defaultSettings(2);
    settings.replies.connectDuration = 5ms;
    settings.replies.streamDelay = 5ms;
    settings.line.gaps = false;
    settings.line.dataDuringText = true;
    settings.line.fillBytesPerSecond = dongle::kLineBytesPerSecond;
    return settings;
}

/// Every time under a name of its own, because the number of a terminal that went is soon another one's.
std::unique_ptr<dongle::Runner> plugIn(const dongle::Settings& settings = quickDongle()) {
    static int number = 0;
    const std::string link =
        testing::TempDir() + "velmora-" + std::to_string(::getpid()) + "-" + std::to_string(++number);
    return std::make_unique<dongle::Runner>(settings, dongle::makeLinkedTerminal(link));
}

/// Reads until the port is gone; returns how many raw packets came before, -1 when it does not go.
int readUpToGone(velmora::Session& session) {
    velmora_record record{};
    std::size_t got = 0;
    for (int raw = 0; session.read(&record, sizeof record, 1, 1, 20'000, nullptr, got) == VELMORA_OK;) {
        raw += record.kind == VELMORA_RAW ? 1 : 0;
        if (record.kind == VELMORA_EVENT && record.code == VELMORA_EVENT_GONE) {
            EXPECT_EQ(record.values[0], static_cast<std::uint32_t>(EIO));
            return raw;
        }
    }
    return -1;
}

bool isFree(const std::string& path) {
    const int port = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    const bool locked = ::flock(port, LOCK_EX | LOCK_NB) == 0;
    ::close(port);
    return locked;
}

TEST(Replug, TwentyTimesWhileReadingUnderAnotherNameWithoutTakingAStrangersDongle) {
    test::FakeMachine machine;
    std::unique_ptr<dongle::Runner> dongle = plugIn();
    // It is opened under another name than it is listed by.
    machine.plug(std::filesystem::canonical(dongle->hostPath()), "MINE");
    velmora::Session session(machine.environment(), {});
    ASSERT_TRUE(session.open(dongle->hostPath()).ok());
    ASSERT_TRUE(session.start(nullptr, nullptr).ok());
    for (int round = 0; round < 20; ++round) {
        auto wanted = test::everybody(quickDongle());
        ASSERT_EQ(session.connect(wanted, false, deadlineIn(20'000), nullptr).status, VELMORA_OK);
        EXPECT_EQ(wanted[1].headset, 1) << "numbers stay";
        ASSERT_TRUE(eventually([&] { return session.statistics().raw > static_cast<std::uint64_t>(round + 1) * 5; }));
        std::thread puller([&, pulled = std::move(dongle)]() mutable {
            machine.unplugAll();
            pulled->hangUp();
        });
        EXPECT_GE(readUpToGone(session), 5);
        puller.join();
        std::size_t got = 0;
        velmora_record record;
        EXPECT_EQ(session.read(&record, sizeof record, 1, 1, -1, nullptr, got), VELMORA_GONE);
        EXPECT_EQ(session.scan(nullptr, deadlineIn(0), nullptr).status, VELMORA_GONE);
        EXPECT_EQ(session.send(1, 1, {}, false).status, VELMORA_GONE);

        const auto stranger = plugIn();
        machine.plug(stranger->hostPath(), "STRANGER");
        EXPECT_EQ(session.reopen(deadlineIn(0), nullptr).status, VELMORA_TIMEOUT);
        std::thread pluggingIn([&] {
            dongle = plugIn();
            machine.plug(dongle->hostPath(), "MINE");
        });
        EXPECT_EQ(session.reopen(deadlineIn(20'000), nullptr).text, "");
        pluggingIn.join();
        EXPECT_EQ(stranger->counters().bytesRead, 0u);
    }
}

TEST(Replug, WaitingForTheDongleCanBeEnded) {
    test::FakeMachine machine;
    std::unique_ptr<dongle::Runner> dongle = plugIn();
    const std::string path = dongle->hostPath();
    velmora::Session session(machine.environment(), {});
    ASSERT_TRUE(session.open(path).ok());
    EXPECT_TRUE(session.reopen(deadlineIn(0), nullptr).ok()) << "it is open";
    dongle->hangUp();
    ASSERT_GE(readUpToGone(session), 0);
    const velmora::Outcome late = session.reopen(deadlineIn(1), nullptr);
    EXPECT_EQ(late.status, VELMORA_TIMEOUT);
    EXPECT_NE(late.text.find(path), std::string::npos) << late.text;
    velmora::Signal cancel;
    std::thread waiting([&] {
        EXPECT_EQ(session.reopen(velmora::Clock::Time::max(), &cancel).status, VELMORA_CANCELLED);
        EXPECT_EQ(session.reopen(velmora::Clock::Time::max(), nullptr).status, VELMORA_CLOSED);
    });
    cancel.set();
    std::this_thread::sleep_for(20ms);
    session.close();
    waiting.join();
}

TEST(Find, TellsWhatEachPortIs) {
    test::FakeMachine machine;
    const auto silent = dongle::makePtyTransport();
    const auto held = dongle::makePtyTransport();
    const int holder = ::open(held->hostPath().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_EQ(::flock(holder, LOCK_EX), 0);

    // One that an ended program has left with its headsets sending.
    const auto streaming = plugIn();
    {
        velmora::Session before(machine.environment(), {});
        ASSERT_TRUE(before.open(streaming->hostPath()).ok());
        auto wanted = test::everybody(quickDongle());
        ASSERT_TRUE(before.connect(wanted, false, deadlineIn(20'000), nullptr).ok());
    }
    dongle::Settings late = quickDongle();
    late.replies.delay = 600ms;  // the first ping goes unanswered
    const auto slow = plugIn(late);
    dongle::Settings dumb = quickDongle();
    dumb.replies.pingText = "ERROR\n";
    const auto modem = plugIn(dumb);

    const std::pair<std::string, velmora_status> expected[] = {
        {silent->hostPath(), VELMORA_NOT_A_DONGLE}, {held->hostPath(), VELMORA_HELD},
        {streaming->hostPath(), VELMORA_OK},        {slow->hostPath(), VELMORA_OK},
        {modem->hostPath(), VELMORA_NOT_A_DONGLE},  {"/dev/no-such-port", VELMORA_NOT_FOUND},
        {"/dev/forbidden", VELMORA_FORBIDDEN},      {"/dev/null", VELMORA_INVALID}};
    for (const auto& [path, status] : expected) {
        machine.plug(path, "", status == VELMORA_FORBIDDEN ? status : VELMORA_OK, path != "/dev/null");
    }

    const int watch = ::open(silent->hostPath().c_str(), O_RDWR | O_NOCTTY);
    termios found{};
    ::tcgetattr(watch, &found);
    ::cfsetspeed(&found, B9600);
    ::tcsetattr(watch, TCSANOW, &found);

    std::vector<velmora_port> ports;
    EXPECT_TRUE(velmora::findDongles(machine.environment(), false, nullptr, ports).ok());
    ASSERT_EQ(ports.size(), std::size(expected));
    for (std::size_t i = 0; i < ports.size(); ++i) {
        SCOPED_TRACE(ports[i].path + std::string(": ") + ports[i].text);
        EXPECT_EQ(ports[i].status, expected[i].second);
        EXPECT_EQ(std::string(ports[i].text).starts_with("A dongle answered within "), ports[i].status == VELMORA_OK);
        EXPECT_STRNE(ports[i].text, "");
    }
    termios after{};
    ::tcgetattr(watch, &after);
    EXPECT_EQ(std::memcmp(&found, &after, sizeof found), 0) << "a port is left as it was found";
    ::close(watch);
    ::close(holder);

    // Cancelling leaves the dongles that have answered.
    machine.unplugAll();
    machine.plug(silent->hostPath(), "");
    machine.plug(streaming->hostPath(), "");
    velmora::Signal cancel;
    const auto asked = streaming->counters().bytesRead;
    std::thread canceller([&] {
        EXPECT_TRUE(
            eventually([&] { return streaming->counters().bytesRead > asked && isFree(streaming->hostPath()); }));
        cancel.set();
    });
    velmora::findDongles(machine.environment(), false, &cancel, ports);
    canceller.join();
    EXPECT_EQ(ports[1].status, VELMORA_OK) << ports[1].text;
    EXPECT_EQ(velmora::findDongles(machine.environment(), false, &cancel, ports).status, VELMORA_CANCELLED);
    machine.unplugAll();
    machine.plug(silent->hostPath(), "");
    const velmora::Outcome none = velmora::findDongles(machine.environment(), false, nullptr, ports);
    EXPECT_EQ(none.status, VELMORA_NOT_FOUND);
    EXPECT_NE(none.text.find(silent->hostPath()), std::string::npos);
}

}  // namespace
