#include <cstring>

#include "sdk/devices/device_info.h"
#include "sdk/devices/device_lists.h"
#include "support/testing.h"

namespace kxorbeta_if {
namespace {

constexpr unsigned char kGuard = 0xA5;

/// A host's record with bytes behind it that nobody may touch.
struct GuardedInfo {
    GuardedInfo() { std::memset(this, kGuard, sizeof *this); }
    bool untouchedBehind() const { return behind == GuardedInfo().behind; }
    bool untouched() const {
        const GuardedInfo fresh;
        return std::memcmp(this, &fresh, sizeof *this) == 0;
    }
    DeviceInfo info;
    std::array<unsigned char, 64> behind;
};

TEST(DeviceInfoConversion, FillsEveryFieldAndNothingBehind) {
    ble_device device("A1:B2:C3:D4:E5:F6", std::string(63, 'n'), -7);
    device.setIndex(15);
    device.setState(1);
    GuardedInfo out;
    convertToDeviceInfo(device, &out.info);
    EXPECT_STREQ(out.info.address, "A1B2C3D4E5F6");
    EXPECT_EQ(out.info.name, std::string(63, 'n'));
    EXPECT_EQ(out.info.option, -7);
    EXPECT_EQ(out.info.index, 15);
    EXPECT_EQ(out.info.state, 1);
    EXPECT_TRUE(out.untouchedBehind());
    convertToDeviceInfo(device, nullptr);
}

TEST(DeviceInfoConversionDeathTest, TextThatDoesNotFitEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    GuardedInfo out;
    ble_device longAddress(std::string(32, 'A'), 0, 0);
    ble_device longName("A", std::string(64, 'n'), 0);
    ble_device longest(std::string(31, 'A'), 0, 0);
    EXPECT_DEATH(convertToDeviceInfo(longAddress, &out.info), "");
    EXPECT_DEATH(convertToDeviceInfo(longName, &out.info), "");
    convertToDeviceInfo(longest, &out.info);
    EXPECT_EQ(std::strlen(out.info.address), 31u);
}

std::vector<std::string> connectedAddresses(DeviceLists& lists) {
    std::vector<std::string> addresses;
    for (int i = 0; i < lists.connectedCount(); ++i) {
        DeviceInfo info{};
        EXPECT_TRUE(lists.connectedDevice(i, &info));
        addresses.emplace_back(info.address);
    }
    return addresses;
}

constexpr auto kConnects = [](const auto&) { return true; };
constexpr auto kDisconnects = [](const ble_device&) { return true; };

TEST(DeviceLists, GettersRefuseWhatIsNotThereAndLeaveTheRecordAlone) {
    DeviceLists lists;
    GuardedInfo out;
    EXPECT_EQ(lists.scanCount(), 0);
    EXPECT_EQ(lists.connectedCount(), 0);
    lists.scanDevices([] { return true; }, [] { return std::vector{ble_device("A", "AI", 0)}; });
    for (const int index : {-1, 1, 2, 2147483647, -2147483647 - 1}) {
        EXPECT_FALSE(lists.scanDevice(index, &out.info)) << index;
        EXPECT_FALSE(lists.connectedDevice(index, &out.info)) << index;
    }
    EXPECT_FALSE(lists.scanDevice(0, nullptr));
    EXPECT_TRUE(out.untouched());
    EXPECT_TRUE(lists.scanDevice(0, &out.info));
}

TEST(DeviceLists, ConnectingReleasesTheLockAndAddsOnlyWhatConnected) {
    DeviceLists lists;
    EXPECT_TRUE(lists.connectDevice("AA:BB:CC:DD:EE:FF", 1, [&](const auto& devices) {
        EXPECT_EQ(devices.size(), 1u);
        EXPECT_EQ(devices[0].address(), "AABBCCDDEEFF");
        EXPECT_EQ(devices[0].option(), 1);
        EXPECT_EQ(lists.connectedCount(), 0) << "the list lock must not be held while connecting";
        return true;
    }));
    EXPECT_FALSE(lists.connectDevice(nullptr, 1, kConnects));
    EXPECT_FALSE(lists.connectDevice("BB", 1, [](const auto&) { return false; }));
    EXPECT_TRUE(lists.connectDevice("AABBCCDDEEFF", 0, kConnects)) << "a second record of an address is allowed";
    EXPECT_EQ(connectedAddresses(lists), std::vector<std::string>(2, "AABBCCDDEEFF"));
}

TEST(DeviceLists, DisconnectRemovesTheFirstExactMatchAndKeepsTheOrder) {
    DeviceLists lists;
    for (const char* address : {"A1", "B2", "C3", "B2"}) {
        lists.connectDevice(address, 0, kConnects);
    }
    for (const char* wrong : {"B", "B2 ", "b2", "B:2", ""}) {
        EXPECT_FALSE(lists.disconnectDevice(wrong, kDisconnects)) << wrong;
    }
    EXPECT_FALSE(lists.disconnectDevice(nullptr, kDisconnects));
    std::string told;
    EXPECT_TRUE(lists.disconnectDevice("B2", [&](const ble_device& device) {
        told = device.address();
        return false;  // does not matter
    }));
    EXPECT_EQ(told, "B2");
    EXPECT_EQ(connectedAddresses(lists), (std::vector<std::string>{"A1", "C3", "B2"}));
}

}  // namespace
}  // namespace kxorbeta_if
