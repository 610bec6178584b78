#include "core/device_registry.h"
#include "core/reply_handlers.h"
#include "support/receive_session.h"
#include "support/testing.h"

namespace test {
namespace {

using namespace kxorbeta_if;

/// Records as "ADDRESS INDEX STATE;".
std::string textOf(const std::vector<ble_device>& devices) {
    std::string text;
    for (const ble_device& device : devices) {
        text += device.address() + " " + std::to_string(device.index()) + " " + std::to_string(device.state()) +
                device.name() + (device.option() == 0 ? ";" : " with option;");
    }
    return text;
}

/// A session with a registry.
struct Dongle : ReceiveSession {
    explicit Dongle(std::initializer_list<std::pair<const char*, int>> devices = {}) {
        for (const auto& [address, index] : devices) {
            ble_device device(address, 0, index);
            device.setState(1);
            registry.append(device);
        }
        // Takes the registry's lock, so that a handler that still held it would hang here.
        onEvent = [this] { recordsAtEvent = records(); };
    }
    std::string records() { return textOf(registry.snapshot()); }

    DeviceRegistry registry;
    ReportTargets targets{registry, callbacks};
    std::string recordsAtEvent;
};

struct ConnectionReport {
    std::string address;
    int index = 0;
    bool indexValid = true;  ///< else it counts as 0, and one of the paths logs it
};

TEST(Replies, ServiceConnectedOnBothPaths) {
    const ConnectionReport invalidIndex{"C2A1B3D4E5F6", 0, false};
    const struct {
        std::string text;
        std::vector<ConnectionReport> reports = {};
    } cases[] = {
        {"Service connected. C2A1B3D4E5F6,3", {{"C2A1B3D4E5F6", 3}}},
        {"noise Service connected.C2A1B3D4E5F6", {{"C2A1B3D4E5F6", 0}}},
        {"Service connected.   c2a1b3d4e5f6 , 7", {{"c2a1b3d4e5f6", 7}}},
        {"Service connected. C2A1B3D4E5F6 9", {{"C2A1B3D4E5F6", 0}}},
        {"Service connected. C2A1B3D4E5F6789,+5,6", {{"C2A1B3D4E5F6", 5}}},
        {"Service connected. C2A1B3", {{"C2A1B3", 0}}},
        {"Service connected. C2A1B3D4E5F6,-1", {{"C2A1B3D4E5F6", -1}}},
        {"Service connected. C2A1B3D4E5F6,x", {invalidIndex}},
        {"Service connected. C2A1B3D4E5F6,", {invalidIndex}},
        {"Service connected. C2A1B3D4E5F6,2147483648", {invalidIndex}},
        // Those that name nobody are passed over, and the second of a line.
        {"Service connected. AA,1\nService connected.    \n\nService connected.\nService connected. 111111111111,4\n"
         "Service connected. 222222222222,5 Service connected. 333333333333,6",
         {{"111111111111", 4}, {"222222222222", 5}}},
        {"Service connected. C2A1B3,5"},
        {"Service connected. C2A1B3D4E5G6,5"},
        {"Service connected.\tC2A1B3D4E5F6,5"},
        {"service connected. C2A1B3D4E5F6,5\nService connected"},
        {""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        // The link thread reads all reports, then takes in and announces one after the other; the connection thread
        // does all of it for one report before it goes on to the next.
        std::string records, parsing, taking, collecting;
        for (const auto& [address, index, indexValid] : c.reports) {
            const std::string number = std::to_string(index);
            const std::string connected = "0 " + address + "(" + number + ") connected.\n";
            const std::string event = "event 2 " + (index == -1 ? "4294967295" : number) + " " + address + "\n";
            records += address + " " + number + " 1;";
            parsing += (indexValid ? "" : "-1 Parse error:" + address + "\n") + connected;
            taking += "0 Add device " + address + ", index=" + number + "\n" + event;
            collecting += connected + event;
        }
        Dongle link;
        handleServiceConnected(link.targets, c.text.c_str());
        EXPECT_EQ(link.take(), parsing + taking);
        Dongle connection;
        EXPECT_EQ(collectGroupConnections(connection.targets, c.text), static_cast<int>(c.reports.size()));
        EXPECT_EQ(connection.take(), collecting);
        for (Dongle* dongle : {&link, &connection}) {
            EXPECT_EQ(dongle->records(), records);
            EXPECT_EQ(dongle->recordsAtEvent, records) << "the last event comes when the record is there";
            EXPECT_FALSE(isHeld(dongle->callbacks.eventLock));
        }
        EXPECT_EQ(textOf(parseServiceConnected(c.text)), records);
    }
}

TEST(Replies, ARepeatedReportUpdatesOnOnePathAndAppendsOnTheOther) {
    const char* const report = "Service connected. C2A1B3D4E5F6,3\n";
    Dongle link{{"AABBCCDDEEFF", 1}, {"C2A1B3D4E5F6", 9}};
    handleServiceConnected(link.targets, report);
    EXPECT_EQ(link.take(),
              "0 C2A1B3D4E5F6(3) connected.\n0 Update device C2A1B3D4E5F6, index=3\n"
              "event 2 3 C2A1B3D4E5F6\n");
    EXPECT_EQ(link.records(), "AABBCCDDEEFF 1 1;C2A1B3D4E5F6 3 1;");

    Dongle connection;
    connection.callbacks.event = nullptr;  // a host need not listen
    EXPECT_EQ(collectGroupConnections(connection.targets, std::string(report) + report), 2);
    EXPECT_EQ(connection.take(), "0 C2A1B3D4E5F6(3) connected.\n0 C2A1B3D4E5F6(3) connected.\n");
    EXPECT_EQ(connection.records(), "C2A1B3D4E5F6 3 1;C2A1B3D4E5F6 3 1;");
    handleServiceConnected(connection.targets, "Service connected. C2A1B3D4E5F6,8");
    EXPECT_EQ(connection.records(), "C2A1B3D4E5F6 8 1;C2A1B3D4E5F6 3 1;") << "the first of two";
    connection.registry.clear();
    EXPECT_EQ(connection.records(), "");
}

TEST(Replies, ClientDisconnected) {
    const std::string known =
        "0 Update device C2A1B3D4E5F6 state to 0\n0 Device C2A1B3D4E5F6 disconnected.\nevent 1 0 C2A1B3D4E5F6\n";
    const std::string unknown = "0 Device 0123456789ab disconnected.\nevent 1 0 0123456789ab\n";
    const struct {
        std::string trace;
        std::vector<std::string> texts;
    } cases[] = {{known,
                  {"Client disconnected,C2A1B3D4E5F6,19", "Client disconnected,C2A1B3D4E5F6",
                   "Client disconnected,C2A1B3D4E5F6,1,2,3,4", "x\nClient disconnected now\n,C2A1B3D4E5F6,\n",
                   "Client disconnected,C2A1B3D4E5F6,1\nClient disconnected,0123456789ab,1\n"}},
                 {unknown, {"a,b Client disconnected,0123456789ab"}},
                 {"",
                  {"Client disconnected,C2A1B3D4E5F6\n", "Client disconnected,C2A1B3D4E5,1",
                   "Client disconnected,C2A1B3D4E5F67,1", "Client disconnected,C2A1B3D4E5G6,1",
                   "Client disconnected, C2A1B3D4E5F6,1", "Client disconnected,", "Client disconnected,,",
                   "Client disconnected C2A1B3D4E5F6", "client disconnected,C2A1B3D4E5F6,1", ""}}};
    for (const auto& [trace, texts] : cases) {
        for (const std::string& text : texts) {
            SCOPED_TRACE(text);
            Dongle dongle{{"AABBCCDDEEFF", 1}, {"C2A1B3D4E5F6", 5}, {"C2A1B3D4E5F6", 6}};
            handleClientDisconnected(dongle.targets, text.c_str());
            EXPECT_EQ(dongle.take(), trace);
            const std::string first = trace == known ? "C2A1B3D4E5F6 5 0;" : "C2A1B3D4E5F6 5 1;";
            EXPECT_EQ(dongle.records(), "AABBCCDDEEFF 1 1;" + first + "C2A1B3D4E5F6 6 1;");
            EXPECT_FALSE(isHeld(dongle.callbacks.eventLock));
        }
    }
}

TEST(Registry, DeviceListReply) {
    const std::string asBefore = "C2A1B3D4E5F6 5 1;AABBCCDDEEFF 2 1;C2A1B3D4E5F6 7 1;";
    const std::string allReset = "C2A1B3D4E5F6 0 0;AABBCCDDEEFF 0 0;C2A1B3D4E5F6 0 0;";
    const std::string firstListed = "C2A1B3D4E5F6 1 1;AABBCCDDEEFF 0 0;C2A1B3D4E5F6 0 0;";
    const std::string digits(300, 'f'), kept = digits.substr(0, 253);  // 255 characters count, with index and comma
    const auto added = [](const std::string& address, int index) {
        return "0 Add device " + address + ", index=" + std::to_string(index) + "\n";
    };
    const auto updated = [](const std::string& address, int index) {
        return "0 Update device " + address + ", index=" + std::to_string(index) + "\n";
    };
    const struct {
        std::string text, log, records;
    } cases[] = {
        {"AT+LIST=none\n", "0 No device connected\n", allReset},
        {"AT+LIST=nonexistent,AB", "0 No device connected\n", allReset},
        {"x\ny AT+LIST=1,C2A1B3D4E5F6;2,02\n3,AB", updated("C2A1B3D4E5F6", 1) + added("02", 2),
         firstListed + "02 2 1;"},
        {"AT+LIST=1,c2a1b3d4e5f6", added("c2a1b3d4e5f6", 1), allReset + "c2a1b3d4e5f6 1 1;"},
        {"AT+LIST=x,01;3;3,C2A1-B3;;99999999999,02; -4z,03;", added("01", 0) + added("02", 0) + added("03", -4),
         allReset + "01 0 1;02 0 1;03 -4 1;"},
        {"AT+LIST=3,", added("", 3), allReset + " 3 1;"},
        {"AT+LIST=3,01,2;4, 02;5,03 ", "", allReset},
        {"AT+LIST=1,01;2,01", added("01", 1) + updated("01", 2), allReset + "01 2 1;"},
        {"AT+LIST=1,01\nAT+LIST=2,02", added("01", 1), allReset + "01 1 1;"},
        {"AT+LIST=1," + digits + ";2,02", added(kept, 1), allReset + kept + " 1 1;"},
        {"AT+LIST= none", "", allReset},
        {"AT+LIST=\n", "", allReset},
        {"AT+LIST none", "", asBefore},
        {"", "", asBefore},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Dongle dongle{{"C2A1B3D4E5F6", 5}, {"AABBCCDDEEFF", 2}, {"C2A1B3D4E5F6", 7}};
        dongle.registry.handleDeviceList(c.text.c_str());
        EXPECT_EQ(dongle.take(), c.log) << "and no event";
        EXPECT_EQ(dongle.records(), c.records);
    }
}

TEST(Registry, StateOfOneRecordAndNameOfAnUpdatedOne) {
    Dongle dongle;
    dongle.registry.append(ble_device("C2A1B3D4E5F6", "XAI", 1));
    ble_device reported("C2A1B3D4E5F6", 0, 4), added("AB", 0, 6);
    EXPECT_TRUE(dongle.registry.addOrUpdateDevice(reported) && dongle.registry.addOrUpdateDevice(added));
    EXPECT_EQ(added.state(), 1);
    dongle.take();
    EXPECT_TRUE(dongle.registry.setDeviceState("AB", 7));
    EXPECT_FALSE(dongle.registry.setDeviceState("A", 7));
    EXPECT_EQ(dongle.take(), "0 Update device AB state to 7\n");
    EXPECT_EQ(dongle.records(), "C2A1B3D4E5F6 4 1XAI with option;AB 6 7;");
    handleServiceConnected(dongle.targets, nullptr);
    handleClientDisconnected(dongle.targets, nullptr);
    dongle.registry.handleDeviceList(nullptr);
    EXPECT_EQ(dongle.take(), "");
}

}  // namespace
}  // namespace test
