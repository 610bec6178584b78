#include <gtest/gtest.h>

#include <system_error>

#include "core/device_command.h"
#include "scenario.h"

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;
using test::EventSeen;

constexpr const char* kFirst = "A1B2C3D4E501";

TEST(GroupCommand, ListsAddressesWithTheirOptions) {
    EXPECT_EQ(groupConnectCommand({{"A1:B2:C3:D4:E5:F6", 0, 0}}), "AT+GRPCONN=A1B2C3D4E5F6");
    EXPECT_EQ(groupConnectCommand({{"A1B2C3D4E5F6", 1, 0}, {"F1E2D3C4B5A6", 0, 0}, {"F1E2D3C4B5A7", -12, 0}}),
              "AT+GRPCONN=A1B2C3D4E5F61;F1E2D3C4B5A6;F1E2D3C4B5A7-12");
    EXPECT_EQ(groupConnectCommand({}), "AT+GRPCONN=");
}

TEST(GroupCommand, TheTimeoutBecomesABudgetOfReads) {
    const struct {
        std::uint32_t seconds, reads;
    } cases[] = {{0, 5000}, {1, 50}, {600, 30000}, {601, 5000}, {4294967295u, 5000}};
    for (const auto& c : cases) {
        EXPECT_EQ(connectionReads(Timing(), c.seconds), c.reads) << c.seconds;
    }
}

class Connection : public test::Scenario {
  protected:
    bool attempt() { return connectGroup(context_, {{kFirst, 1, 0}}, 0); }
    void expectNotConnected() {
        EXPECT_FALSE(context_.flags.connecting);
        EXPECT_FALSE(context_.flags.groupConnected);
        EXPECT_FALSE(context_.flags.linkActive);
        EXPECT_TRUE(linkEnded());
    }
};

TEST_F(Connection, ConnectsRegistersAndStartsTheLinkThread) {
    start();
    context_.registry.append({"0123456789AB", 0, 3});
    EXPECT_TRUE(attempt());
    EXPECT_TRUE(context_.flags.groupConnected && context_.flags.linkActive && context_.flags.ctlFraming);
    EXPECT_TRUE(context_.flags.linkStarted);
    EXPECT_FALSE(context_.flags.connecting);
    EXPECT_EQ(requests(), std::vector<std::string>{"AT+GRPCONN=A1B2C3D4E5011"});
    const auto registry = context_.registry.snapshot();
    ASSERT_EQ(registry.size(), 1u) << "what an earlier attempt reported is gone";
    EXPECT_EQ(registry[0].address(), kFirst);
    EXPECT_EQ(registry[0].index(), 1);
    EXPECT_EQ(registry[0].state(), 1);
    EXPECT_EQ(received.events(), (std::vector<EventSeen>{{2, 1, kFirst}, {4, 0, ""}}));
    const auto lines = log.lines();
    EXPECT_EQ(lines[0], "0 Group Connect: AT+GRPCONN=A1B2C3D4E5011");
    EXPECT_EQ(lines[1], "0 A1B2C3D4E501(1) connected.");
    EXPECT_TRUE(log.has("0 Main thread start"));

    EXPECT_FALSE(attempt()) << "one group at a time";
    EXPECT_EQ(requests().size(), 1u);
}

TEST_F(Connection, IsRefusedWhileThePortIsNotItsOwnAndThenChangesNothing) {
    EXPECT_FALSE(attempt()) << "closed port";
    start();
    context_.registry.append({"0123456789AB", 0, 3});
    for (std::atomic<bool>* flag : {&context_.flags.linkActive, &context_.flags.scanning, &context_.flags.connecting,
                                    &context_.flags.groupConnected}) {
        *flag = true;
        EXPECT_FALSE(attempt());
        *flag = false;
    }
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(context_.registry.snapshot().size(), 1u);
}

TEST_F(Connection, AHeadsetOutOfRangeOrASilentDongleFails) {
    settings.headsets[0].connectFails = true;
    start();
    EXPECT_FALSE(attempt());
    expectNotConnected();
    dongle_->with([](dongle::Engine& e) { e.setSilent(true); });
    context_.timing.connectionReadsPerSecond = 1;
    context_.timing.connectionReadTimeoutMs = 2;
    EXPECT_FALSE(attempt());
    expectNotConnected();
    EXPECT_TRUE(received.events().empty());
}

TEST_F(Connection, WithoutTheEndTextAReportedHeadsetStillCounts) {
    settings.replies.connectEnd = false;
    context_.timing.connectionReadsPerSecond = 1;
    context_.timing.connectionReadTimeoutMs = 5;
    start();
    EXPECT_TRUE(attempt());
    EXPECT_TRUE(context_.flags.linkActive);
}

TEST_F(Connection, TextsCutAnywhereAreUnderstood) {
    // The end text in two reads; a report cut inside the address would be taken as it stands, so it is cut before it.
    settings.replies.connect = false;
    start();
    const auto answer = [&](std::vector<std::string> writes) {
        std::thread dongle([&] {
            test::eventually([&] { return requestCount("AT+GRPCONN") > 0; });
            for (const std::string& write : writes) {
                deliver(write);
            }
        });
        const bool connected = attempt();
        dongle.join();
        return connected;
    };
    EXPECT_TRUE(
        answer({"noise \x01\xFF\r\nService conn", "ected. A1B2C3D4E501,1\r\n", "Group conn", "ection finish\r\n"}));
    EXPECT_EQ(received.events()[0], (EventSeen{2, 1, kFirst}));
    EXPECT_EQ(context_.registry.snapshot().size(), 1u);
}

TEST_F(Connection, ReportsThatNameNobodyAreSkipped) {
    settings.replies.connect = false;
    context_.timing.connectionReadsPerSecond = 1;
    start();
    std::thread dongle([&] {
        test::eventually([&] { return requestCount("AT+GRPCONN") > 0; });
        deliver("Service connected.     \nService connected. notanaddress\n");
        deliver("Service connected. x, and ");
        deliver("Service connected. A1B2C3D4E501,1 on the same line\n");
        deliver("Group connection finish\r\n");
    });
    EXPECT_FALSE(attempt());
    dongle.join();
    expectNotConnected();
}

TEST_F(Connection, AReportIsFoundBehindALineWithoutEnd) {
    settings.replies.connect = false;
    start();
    std::thread dongle([&] {
        test::eventually([&] { return requestCount("AT+GRPCONN") > 0; });
        for (int i = 0; i < 20; ++i) {
            deliver(std::string(2000, 'S'));
        }
        deliver("Service connec");
        deliver("ted.");
        deliver(std::string(500, ' '));
        deliver("    A1B2C3D4E501,7 ");
        deliver("Group connection fini");
        deliver("sh");
        deliver("\r\n");
    });
    EXPECT_TRUE(attempt());
    dongle.join();
    EXPECT_EQ(received.events()[0], (EventSeen{2, 7, kFirst}));
    EXPECT_EQ(received.events().size(), 2u);
}

TEST_F(Connection, IsRefusedWhileTheLastLinkThreadIsHeldUpByACallback) {
    settings.headsets[0].sampleRate = 2000;
    context_.timing.linkEndWait = 20ms;
    start();
    ASSERT_TRUE(attempt());
    static std::atomic<bool> inside{false};
    static std::atomic<bool> leave{false};
    inside = leave = false;
    context_.callbacks.rawData = [](void*, int, int, int*, int) {
        inside = true;
        test::eventually([] { return leave.load(); });
    };
    context_.flags.recording = true;
    ASSERT_TRUE(test::eventually([] { return inside.load(); }));
    disconnectAll(context_);
    EXPECT_FALSE(linkEnded());
    EXPECT_FALSE(attempt()) << "two link threads must never share a port";
    EXPECT_EQ(requestCount("AT+GRPCONN"), 1u);
    leave = true;
    ASSERT_TRUE(test::eventually([&] { return linkEnded(); }));
    EXPECT_TRUE(attempt());
}

TEST_F(Connection, ACommandTheDongleCannotTakeIsNotSent) {
    start();
    context_.timing.connectionReadsPerSecond = 1;
    context_.timing.connectionReadTimeoutMs = 2;
    const std::vector<ble_device> fits(38, {std::string(12, 'A'), 0, 0});  // 12 + 38 * 13 - 1 = 505 characters
    std::vector<ble_device> tooMany = fits;
    tooMany.emplace_back(std::string(12, 'B'), 0, 0);
    EXPECT_FALSE(connectGroup(context_, tooMany, 0));
    EXPECT_TRUE(requests().empty());
    connectGroup(context_, fits, 0);
    EXPECT_EQ(requestCount("AT+GRPCONN="), 1u);
}

TEST_F(Connection, WithoutAThreadItFailsAndStaysRefused) {
    start();
    context_.startThread = [](auto) -> std::thread { throw std::system_error(EAGAIN, std::generic_category()); };
    EXPECT_THROW(attempt(), std::system_error);
    EXPECT_TRUE(context_.flags.connecting);
    EXPECT_FALSE(attempt());
    context_.flags.connecting = false;
}

class Disconnection : public test::Scenario {};

TEST_F(Disconnection, AllWithoutAGroupOnlyEndsCollection) {
    start();
    context_.flags.recording = true;
    EXPECT_TRUE(disconnectAll(context_));
    EXPECT_FALSE(context_.flags.recording);
    EXPECT_TRUE(requests().empty());
    EXPECT_FALSE(log.has("0 Devices disconnect"));
}

TEST_F(Disconnection, AllSaysSoFirstLetsCommandsOutAndLeavesNoThread) {
    settings.headsets[0].sampleRate = 0;
    context_.timing.linkReadTimeoutMs = 2;
    start();
    connect();
    for (std::uint8_t command = 1; command <= 3; ++command) {
        EXPECT_TRUE(sendCommand(context_.flags, context_.commandQueue, 1, command));
    }
    context_.flags.recording = true;
    EXPECT_TRUE(disconnectAll(context_));
    EXPECT_TRUE(linkEnded());
    const auto lines = log.lines();
    EXPECT_EQ(lines.back(), "0 Main thread stop") << "the thread's last word comes before the return";
    EXPECT_EQ(received.events().back(), (EventSeen{5, 0, ""}));
    EXPECT_FALSE(context_.flags.recording || context_.flags.groupConnected || context_.flags.linkActive ||
                 context_.flags.ctlFraming || context_.flags.linkStarted);
    EXPECT_EQ(context_.commandQueue.size(), 0u);
    const auto position = [&](const std::string& line) { return std::find(lines.begin(), lines.end(), line); };
    EXPECT_LT(position("0 Cmd: 41542B43544C313AAACC03000000"
                       "03F9"),
              position("0 Devices disconnect"));
    ASSERT_TRUE(test::eventually([&] { return requests().size() == 5; }));
    EXPECT_EQ(requests()[1], "AT+DISCONN");
}

TEST_F(Disconnection, AQueueThatDoesNotDrainIsGivenUp) {
    start();
    connect();
    context_.timing.drainPolls = 3;
    dongle_.reset();  // the port is gone, passes take their time, and 31 of them are needed
    for (int i = 0; i < 3; ++i) {
        sendCommand(context_.flags, context_.commandQueue, 1, 1);
    }
    disconnectAll(context_);
    EXPECT_GT(context_.commandQueue.size(), 0u);
    EXPECT_TRUE(log.has("0 Devices disconnect"));
    EXPECT_TRUE(linkEnded());
}

TEST_F(Disconnection, OneHeadsetIsDroppedThroughTheQueue) {
    const ble_device device("A1:B2:C3:D4:E5:01", 0, 0);
    EXPECT_FALSE(disconnectDevice(context_, device)) << "closed port";
    context_.timing.linkReadTimeoutMs = 2;
    start();
    EXPECT_FALSE(disconnectDevice(context_, device)) << "no link";
    connect();
    context_.flags.connecting = true;
    EXPECT_FALSE(disconnectDevice(context_, device));
    context_.flags.connecting = false;
    EXPECT_EQ(context_.commandQueue.size(), 0u);
    EXPECT_TRUE(disconnectDevice(context_, device));
    ASSERT_TRUE(test::eventually([&] { return received.hasEvent(1); }));
    EXPECT_EQ(requests().back(), "AT+DISDEV=A1B2C3D4E501");
    EXPECT_EQ(received.events().back(), (EventSeen{1, 0, kFirst}));
    EXPECT_EQ(context_.registry.snapshot()[0].state(), 0);
    EXPECT_TRUE(
        log.has("0 Cmd: 41542B4449534445563D413142324333443445353031"
                "00"))
        << "text and one zero byte";
    EXPECT_TRUE(context_.flags.linkActive);
}

TEST_F(Disconnection, TwoHundredConnectionsOneAfterTheOther) {
    settings.replies.connectDuration = 1ms;
    settings.line.textGap = 11ms;
    start();
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(connectGroup(context_, {{kFirst, 1, 0}}, 0)) << i;
        context_.flags.recording = true;
        disconnectAll(context_);
        ASSERT_TRUE(linkEnded()) << i;
    }
    const auto events = received.events();
    ASSERT_EQ(events.size(), 600u);
    for (std::size_t i = 0; i < events.size(); i += 3) {
        ASSERT_EQ(events[i].code, 2u) << i;
        ASSERT_EQ(events[i + 1].code, 4u) << i;
        ASSERT_EQ(events[i + 2].code, 5u) << i;
    }
}

}  // namespace
}  // namespace kxorbeta_if
