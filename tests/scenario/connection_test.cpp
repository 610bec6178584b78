#include <random>
#include <sstream>

#include "core/device_command.h"
#include "core/reply_handlers.h"
#include "core/scan.h"
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
    bool attemptAnsweredBy(const std::vector<std::string>& reads) {
        std::thread dongle = clock_.thread([&] {
            clock_.eventually([&] { return requestCount("AT+GRPCONN") > 0; });
            for (const std::string& read : reads) {
                deliver(read);
            }
        });
        const bool connected = attempt();
        clock_.join(dongle);
        return connected;
    }
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

TEST_F(Connection, LikeAScanItIsRefusedWhileThePortIsNotItsOwnAndThenChangesNothing) {
    EXPECT_FALSE(attempt() || scan(context_)) << "closed port";
    start();
    context_.registry.append({"0123456789AB", 0, 3});
    context_.scanWorkingList.addIfNew({"0123456789AB", 0, 3});
    for (std::atomic<bool>* flag : {&context_.flags.linkActive, &context_.flags.scanning, &context_.flags.connecting}) {
        *flag = true;
        EXPECT_FALSE(attempt() || scan(context_));
        *flag = false;
    }
    context_.flags.groupConnected = true;
    EXPECT_FALSE(attempt());
    context_.flags.groupConnected = false;
    EXPECT_TRUE(requests().empty());
    EXPECT_EQ(context_.registry.snapshot().size() + context_.scanWorkingList.snapshot().size(), 2u);
}

TEST_F(Connection, AHeadsetOutOfRangeFailsAndASilentDongleCostsTheWholeBudget) {
    settings.headsets[0].connectFails = true;
    start();
    EXPECT_FALSE(attempt());
    expectNotConnected();
    line_.with([](dongle::Engine& e) { e.setSilent(true); });
    const auto begin = clock_.now();
    EXPECT_FALSE(attempt());
    EXPECT_EQ(clock_.now() - begin, 100s);
    expectNotConnected();
    EXPECT_TRUE(received.events().empty());
}

TEST_F(Connection, ALineThatIsGoneEndsTheAttemptAtOnce) {
    expectToEndWithTheLine([&] { return attempt(); });
    expectNotConnected();
}

TEST_F(Connection, TextGrowsOverReadsUntilItHoldsAReportOrTheEnd) {
    const std::string report = "Service connected. A1B2C3D4E501,1", end = "Group connection finish";
    const struct {
        std::vector<std::string> reads;
        std::ptrdiff_t reports;
        bool ends = true;  // else the budget of reads runs out
    } cases[] = {{{"Service conn", "ected. A1B2C3D4E501,1\n", end}, 1},
                 {{"x\n" + report + "\nx\n" + report, report + "\n" + end + "\r\n"}, 3},
                 {{"Serv\x01ice\r con\xFFnected. A1B2C3D4E501,1\n", end}, 1},
                 {{"Service connected.", " A1B2C3D4E501,1\n", end}, 1},
                 {{report + "\nGroup conn", "ection finish"}, 1, false},  // the report took its first half along
                 {{"Group conn", "ection finish"}, 0},
                 {{"x", end}, 0, false},  // what ends a text does not end the attempt
                 {{"x", end, "x"}, 0},
                 {{"x\n" + report, end + "\r\n", report}, 1},
                 {{end + "\n", report}, 0},
                 {{"Service connected.\n", "noise", report + "\n" + end}, 1, false}};
    settings.replies.connect = false;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.reads));
        start();
        received.forget();
        const auto begin = clock_.now();
        EXPECT_EQ(attemptAnsweredBy(c.reads), c.reports > 0);
        EXPECT_EQ(clock_.now() - begin < 99s, c.ends);
        const auto events = received.events();
        EXPECT_EQ(std::ranges::count(events, 2u, &EventSeen::code), c.reports);
        disconnectAll(context_);
    }
}

TEST_F(Connection, RandomTextCutAnywhereIsReadAsTheWholeTextWouldBe) {
    // What the reply text is made of, and bytes that are no text. The rule: text grows until it holds a report, and the
    // attempt ends with the end text, unless that ends the text and something stood before it.
    std::istringstream list(
        "Service connected.|Service conn|ected.| |    |A1B2C3D4E501,1|A1B2C3D4E502|,|7|\n|\r\n|Group connection finish|"
        "Group conn|ection finish|noise|\x01\xFF|x\n|" +
        std::string(300, 'x'));
    std::vector<std::string> pieces;
    for (std::string piece; std::getline(list, piece, '|');) {
        pieces.push_back(piece);
    }
    settings.replies.connect = false;
    std::mt19937 random(11);
    for (int round = 0; round < 150; ++round) {
        SCOPED_TRACE(round);
        std::vector<std::string> reads(1 + random() % 40);
        for (std::string& read : reads) {
            for (auto count = 1 + random() % 4; count > 0; --count) {
                read += pieces[random() % pieces.size()];
            }
        }
        std::string text;
        int total = 0;
        DeviceRegistry registry;
        CallbackTable silent;
        for (const std::string& read : reads) {
            std::copy_if(read.begin(), read.end(), std::back_inserter(text),
                         [](unsigned char c) { return c == '\n' || (c >= 0x20 && c < 0x80); });
            const std::size_t end = text.find("Group connection finish");
            if (end != std::string::npos && (text.size() == 23 || end + 23 < text.size())) {
                break;
            }
            if (const int count = collectGroupConnections({registry, silent}, text); count > 0) {
                total += count;
                text.clear();
            }
        }
        total += collectGroupConnections({registry, silent}, text);

        start();
        received.forget();
        EXPECT_EQ(attemptAnsweredBy(reads), total > 0);
        const auto events = received.events();
        EXPECT_EQ(std::count_if(events.begin(), events.end(), [](const EventSeen& e) { return e.code == 2; }), total);
        disconnectAll(context_);
    }
}

TEST_F(Connection, ALineWithoutEndCostsNoMoreThanAnother) {
    settings.replies.connect = false;
    start();
    std::vector<std::string> reads(2000, std::string(2000, 'S'));
    for (const char* piece : {"Service connec", "ted.", "    A1B2C3D4E501,7 ", "Group connection fini", "sh", "\r\n"}) {
        reads.emplace_back(piece);
    }
    EXPECT_TRUE(attemptAnsweredBy(reads));
    EXPECT_EQ(received.events()[0], (EventSeen{2, 7, kFirst}));
    EXPECT_EQ(received.events().size(), 2u);
}

/// What a callback does that holds the link thread up.
struct HeldUp {
    static inline test::VirtualClock* clock;
    static inline std::atomic<bool> inside, leave;

    explicit HeldUp(test::VirtualClock& own) {
        clock = &own;
        inside = leave = false;
    }
    static void hold() {
        inside = true;
        clock->eventually([] { return leave.load(); });
    }
};

TEST_F(Connection, IsRefusedWhileTheLastLinkThreadIsHeldUpByACallback) {
    start();
    ASSERT_TRUE(attempt());
    const HeldUp heldUp(clock_);
    context_.callbacks.rawData = [](void*, int, int, int*, int) { HeldUp::hold(); };
    context_.flags.recording = true;
    ASSERT_TRUE(clock_.eventually([] { return HeldUp::inside.load(); }));
    sendCommand(context_.flags, context_.commandQueue, 1, 1);
    const auto begin = clock_.now();
    disconnectAll(context_);
    EXPECT_EQ(clock_.now() - begin, 11s) << "100 polls of 100 ms for the queue, and a second for the thread";
    EXPECT_EQ(context_.commandQueue.size(), 1u);
    EXPECT_TRUE(log.has("0 Devices disconnect"));
    EXPECT_FALSE(linkEnded());
    EXPECT_FALSE(attempt()) << "two link threads must never share a port";
    EXPECT_FALSE(context_.flags.connecting);
    EXPECT_EQ(requestCount("AT+GRPCONN"), 1u);
    HeldUp::leave = true;
    ASSERT_TRUE(clock_.eventually([&] { return linkEnded(); }));
    EXPECT_TRUE(attempt());
}

TEST_F(Connection, WaitingForTheLastLinkThreadItHasThePortAlready) {
    start();
    ASSERT_TRUE(attempt());
    const HeldUp heldUp(clock_);
    context_.callbacks.event = [](void*, unsigned code, unsigned, void*) {
        if (code == 5) {
            HeldUp::hold();
        }
    };
    disconnectAll(context_);  // gives up waiting for the thread
    ASSERT_TRUE(HeldUp::inside);
    std::thread second = clock_.thread([&] { EXPECT_TRUE(attempt()); });
    clock_.sleepFor(500ms);
    EXPECT_FALSE(scan(context_)) << "a scan in the middle of a connection that has begun";
    EXPECT_FALSE(attempt());
    HeldUp::leave = true;
    clock_.join(second);
    EXPECT_EQ(requestCount("AT+SCAN"), 0u);
    EXPECT_EQ(requestCount("AT+GRPCONN"), 2u);

    // A port that goes meanwhile ends the attempt before it has cost anything.
    HeldUp::leave = false;
    disconnectAll(context_);
    const auto begin = clock_.now();
    std::thread third = clock_.thread([&] { EXPECT_FALSE(attempt()); });
    clock_.sleepFor(500ms);
    context_.port.close();
    HeldUp::leave = true;
    clock_.join(third);
    EXPECT_LT(clock_.now() - begin, 1s);
    EXPECT_EQ(requestCount("AT+GRPCONN"), 2u);
}

TEST_F(Connection, OfAScanAndAConnectionAtTheSameMomentOneIsRefused) {
    settings.replies.scanDuration = 20ms;
    for (int round = 0; round < 300; ++round) {
        start();
        std::atomic<int> ready{0};
        const auto together = [&] {
            ++ready;
            while (ready < 2) {
            }
        };
        bool scanned = false;
        std::thread scanner = clock_.thread([&] {
            together();
            scanned = scan(context_);
        });
        together();
        const bool connected = attempt();
        clock_.join(scanner);
        // Whichever came second was refused, or found the line free again.
        const auto all = requests();
        if (!scanned || !connected) {
            ASSERT_EQ(all.size(), 1u) << round;
        }
        ASSERT_TRUE(scanned || connected);
        disconnectAll(context_);
    }
}

TEST_F(Connection, ACommandTheDongleCannotTakeIsNotSent) {
    start();
    const std::vector<ble_device> fits(38, {std::string(12, 'A'), 0, 0});  // 12 + 38 * 13 - 1 = 505 characters
    std::vector<ble_device> tooMany = fits;
    tooMany.emplace_back(std::string(12, 'B'), 0, 0);
    EXPECT_FALSE(connectGroup(context_, tooMany, 0));
    EXPECT_TRUE(requests().empty());
    connectGroup(context_, fits, 0);
    EXPECT_EQ(requestCount("AT+GRPCONN="), 1u);
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
    EXPECT_LT(position("0 Cmd: 41542B43544C313AAACC0300000003F9"), position("0 Devices disconnect"));
    ASSERT_TRUE(clock_.eventually([&] { return requests().size() == 5; }));
    EXPECT_EQ(requests()[1], "AT+DISCONN");
}

TEST_F(Disconnection, OneHeadsetIsDroppedThroughTheQueue) {
    const ble_device device("A1:B2:C3:D4:E5:01", 0, 0);
    EXPECT_FALSE(disconnectDevice(context_, device)) << "closed port";
    start();
    EXPECT_FALSE(disconnectDevice(context_, device)) << "no link";
    connect();
    context_.flags.connecting = true;
    EXPECT_FALSE(disconnectDevice(context_, device));
    context_.flags.connecting = false;
    EXPECT_EQ(context_.commandQueue.size(), 0u);
    EXPECT_TRUE(disconnectDevice(context_, device));
    ASSERT_TRUE(clock_.eventually([&] { return received.hasEvent(1); }));
    EXPECT_EQ(requests().back(), "AT+DISDEV=A1B2C3D4E501");
    EXPECT_EQ(received.events().back(), (EventSeen{1, 0, kFirst}));
    EXPECT_EQ(context_.registry.snapshot()[0].state(), 0);
    EXPECT_TRUE(log.has("0 Cmd: 41542B4449534445563D41314232433344344535303100")) << "text and one zero byte";
    EXPECT_TRUE(context_.flags.linkActive);
}

}  // namespace
}  // namespace kxorbeta_if
