#include <gtest/gtest.h>

#include <sstream>

#include "core/device_registry.h"
#include "core/reply_handlers.h"
#include "support/receive_session.h"

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

TEST(Replies, ServiceConnectedOnBothPaths) {
    // A text and the addresses and indices reported in it; "bad" for an index that one of the paths logs as such.
    auto table = rows(
        R"(Service connected. C2A1B3D4E5F6,3 => C2A1B3D4E5F6 3 | noise Service connected.C2A1B3D4E5F6 => C2A1B3D4E5F6 0
        Service connected.   c2a1b3d4e5f6 , 7 => c2a1b3d4e5f6 7 | Service connected. C2A1B3D4E5F6 9 => C2A1B3D4E5F6 0
        Service connected. C2A1B3D4E5F6789,+5,6 => C2A1B3D4E5F6 5 | Service connected. C2A1B3 => C2A1B3 0
        Service connected. C2A1B3D4E5F6,-1 => C2A1B3D4E5F6 -1 | Service connected. C2A1B3D4E5F6,x => C2A1B3D4E5F6 bad
        Service connected. C2A1B3D4E5F6, => C2A1B3D4E5F6 bad
        Service connected. C2A1B3D4E5F6,2147483648 => C2A1B3D4E5F6 bad
        Service connected. AA,1$Service connected.    $$Service connected.$Service connected. 111111111111,4$Service connected. 222222222222,5 Service connected. 333333333333,6 => 111111111111 4 222222222222 5
        Service connected. C2A1B3,5 => - | Service connected. C2A1B3D4E5G6,5 => -
        Service connected.`C2A1B3D4E5F6,5 => - | service connected. C2A1B3D4E5F6,5$Service connected => - | - => -)");
    for (const auto& row : table) {
        const std::string text = row[0], reports = row[1];
        SCOPED_TRACE(text);
        // The link thread reads all reports, then takes in and announces one after the other; the connection thread
        // does all of it for one report before it goes on to the next.
        std::string records, parsing, taking, collecting, address, index;
        int count = 0;
        for (std::istringstream words(reports); words >> address >> index; ++count) {
            if (index == "bad") {
                parsing += "-1 Parse error:" + address + "\n";
                index = "0";
            }
            const std::string connected = "0 " + address + "(" + index + ") connected.\n";
            const std::string event = "event 2 " + (index == "-1" ? "4294967295" : index) + " " + address + "\n";
            records += address + " " + index + " 1;";
            parsing += connected;
            taking += "0 Add device " + address + ", index=" + index + "\n" + event;
            collecting += connected + event;
        }
        Dongle link;
        handleServiceConnected(link.targets, text.c_str());
        EXPECT_EQ(link.take(), parsing + taking);
        Dongle connection;
        EXPECT_EQ(collectGroupConnections(connection.targets, text), count);
        EXPECT_EQ(connection.take(), collecting);
        for (Dongle* dongle : {&link, &connection}) {
            EXPECT_EQ(dongle->records(), records);
            EXPECT_EQ(dongle->recordsAtEvent, records) << "the last event comes when the record is there";
            EXPECT_FALSE(isHeld(dongle->callbacks.eventLock));
        }
        EXPECT_EQ(textOf(parseServiceConnected(text)), records);
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
    auto table = rows(R"(Client disconnected,C2A1B3D4E5F6,19 => known | Client disconnected,C2A1B3D4E5F6 => known
        Client disconnected,C2A1B3D4E5F6,1,2,3,4 => known | x$Client disconnected now$,C2A1B3D4E5F6,$ => known
        Client disconnected,C2A1B3D4E5F6,1$Client disconnected,0123456789ab,1$ => known
        a,b Client disconnected,0123456789ab => unknown | Client disconnected,C2A1B3D4E5F6$
        Client disconnected,C2A1B3D4E5,1 | Client disconnected,C2A1B3D4E5F67,1 | Client disconnected,C2A1B3D4E5G6,1
        Client disconnected, C2A1B3D4E5F6,1 | Client disconnected, | Client disconnected,,
        Client disconnected C2A1B3D4E5F6 | client disconnected,C2A1B3D4E5F6,1 | -)");
    for (const auto& row : table) {
        const std::string text = row[0], lines = row.size() == 1 ? "" : row[1] == "known" ? known : unknown;
        SCOPED_TRACE(text);
        Dongle dongle{{"AABBCCDDEEFF", 1}, {"C2A1B3D4E5F6", 5}, {"C2A1B3D4E5F6", 6}};
        handleClientDisconnected(dongle.targets, text.c_str());
        EXPECT_EQ(dongle.take(), lines);
        const std::string first = lines == known ? "C2A1B3D4E5F6 5 0;" : "C2A1B3D4E5F6 5 1;";
        EXPECT_EQ(dongle.records(), "AABBCCDDEEFF 1 1;" + first + "C2A1B3D4E5F6 6 1;");
        EXPECT_FALSE(isHeld(dongle.callbacks.eventLock));
    }
}

TEST(Registry, DeviceListReply) {
    const std::string asBefore = "C2A1B3D4E5F6 5 1;AABBCCDDEEFF 2 1;C2A1B3D4E5F6 7 1;";
    const std::string allReset = "C2A1B3D4E5F6 0 0;AABBCCDDEEFF 0 0;C2A1B3D4E5F6 0 0;";
    const std::string firstListed = "C2A1B3D4E5F6 1 1" + allReset.substr(16);
    const std::string digits(300, 'f'), kept = digits.substr(0, 253);  // 255 characters count, with index and comma
    // Text, log lines and records, which come behind those of before when the text is a list.
    auto table = rows(
        R"(AT+LIST=none$ => 0 No device connected$ => reset | AT+LIST=nonexistent,AB => 0 No device connected$ => reset
        x$y AT+LIST=1,C2A1B3D4E5F6;2,02$3,AB => 0 Update device C2A1B3D4E5F6, index=1$0 Add device 02, index=2$ => first 02 2 1;
        AT+LIST=1,c2a1b3d4e5f6 => 0 Add device c2a1b3d4e5f6, index=1$ => reset c2a1b3d4e5f6 1 1;
        AT+LIST=x,01;3;3,C2A1-B3;;99999999999,02; -4z,03; => 0 Add device 01, index=0$0 Add device 02, index=0$0 Add device 03, index=-4$ => reset 01 0 1;02 0 1;03 -4 1;
        AT+LIST=3, => 0 Add device , index=3$ => reset  3 1; | AT+LIST=3,01,2;4, 02;5,03  => - => reset
        AT+LIST=1,01;2,01 => 0 Add device 01, index=1$0 Update device 01, index=2$ => reset 01 2 1;
        AT+LIST=1,01$AT+LIST=2,02 => 0 Add device 01, index=1$ => reset 01 1 1; | AT+LIST= none => - => reset
        AT+LIST=$ => - => reset | AT+LIST none => - => before | - => - => before)");
    table.push_back(
        {"AT+LIST=1," + digits + ";2,02", "0 Add device " + kept + ", index=1\n", "reset " + kept + " 1 1;"});
    for (const auto& row : table) {
        SCOPED_TRACE(row[0]);
        const std::string rest = row[2] == "before" ? "" : row[2].substr(std::min(row[2].size(), std::size_t{6}));
        Dongle dongle{{"C2A1B3D4E5F6", 5}, {"AABBCCDDEEFF", 2}, {"C2A1B3D4E5F6", 7}};
        dongle.registry.handleDeviceList(row[0].c_str());
        EXPECT_EQ(dongle.take(), row[1]) << "and no event";
        EXPECT_EQ(dongle.records(), (row[2][0] == 'b' ? asBefore : row[2][0] == 'f' ? firstListed : allReset) + rest);
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
