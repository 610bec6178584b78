#include <pty.h>

#include <fstream>
#include <optional>

#include "link/low_latency_linux.h"
#include "link/port_list.h"
#include "link/serial_port.h"
#include "support/ordinary_user_posix.h"
#include "support/test_line.h"
#include "support/testing.h"
#include "support/working_folder.h"

// Over a tree that looks like the kernel's.

namespace kxorbeta_if {
namespace {

namespace fs = std::filesystem;

void write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text << '\n';
}

class PortListTest : public testing::Test {
  protected:
    PortListTest() {
        for (const std::string& folder : {folders_.devices, folders_.terminals, folders_.processes}) {
            fs::create_directories(folder);
        }
    }

    /// A terminal `name` of the device in `device`, with its file.
    void addTerminal(const std::string& name, const fs::path& device) {
        fs::create_directories(device / "tty" / name);
        fs::create_directory_symlink(device / "tty" / name, fs::path(folders_.terminals) / name);
        fs::create_directory_symlink("../../", device / "tty" / name / "device");
        write(fs::path(folders_.devices) / name, "");
    }

    static void setDriver(const fs::path& device, const fs::path& driver) {
        fs::create_directories(driver);
        fs::create_directories(device);
        fs::create_directory_symlink(driver, device / "driver");
    }

    void addProcess(int number, const std::string& program, const std::vector<fs::path>& open) {
        const fs::path folder = fs::path(folders_.processes) / std::to_string(number);
        write(folder / "comm", program);
        fs::create_directories(folder / "fd");
        int descriptor = 0;
        for (const fs::path& file : open) {
            fs::create_symlink(file, folder / "fd" / std::to_string(descriptor++));
        }
    }

    std::string names() const {
        std::string all;
        for (const PortInfo& port : listPorts(folders_)) {
            all += port.name + " ";
        }
        return all;
    }

    test::WorkingFolder folder_;
    const fs::path root_ = folder_.path();
    const fs::path bus_ = root_ / "sys/devices/pci0/usb1";
    const PortFolders folders_{root_ / "dev", root_ / "sys/class/tty", root_ / "proc"};
};

TEST_F(PortListTest, APortIsDescribedByWhatItsDeviceAndItsDriverTell) {
    for (const auto& [file, text] : {std::pair("1-4/idVendor", "1a86"),
                                     {"1-4/idProduct", "55D3"},
                                     {"1-4/manufacturer", "Some Maker"},
                                     {"1-4/product", "USB Dual_Serial"},
                                     {"1-4/serial", "5A1B012345"},
                                     {"1-4/1-4:1.0/ttyUSB7/latency_timer", "16"},
                                     {"idVendor", "1d6b"},  // the hub above it
                                     {"1-2/idVendor", "0403"},
                                     {"1-2/idProduct", "6001"},
                                     {"1-2/product", "Adapter"}}) {
        write(bus_ / file, text);
    }
    setDriver(bus_ / "1-4/1-4:1.0/ttyUSB7", root_ / "sys/bus/usb-serial/drivers/some_driver");
    setDriver(bus_ / "1-4/1-4:1.0", root_ / "sys/bus/usb/drivers/outer_driver");
    addTerminal("ttyUSB7", bus_ / "1-4/1-4:1.0/ttyUSB7");
    addTerminal("ttyACM0", bus_ / "1-2/1-2:1.0");
    // As recent kernels show a port of the board: the layer between is no driver.
    const fs::path board = root_ / "sys/devices/pnp0/00:01";
    setDriver(board, root_ / "sys/bus/pnp/drivers/serial");
    setDriver(board / "00:01:0.0", root_ / "sys/bus/serial-base/drivers/port");
    addTerminal("ttyS0", board / "00:01:0.0");
    write(board / "00:01:0.0/tty/ttyS0/type", "4");

    const struct {
        std::string name, description, serialNumber, driver;
        std::optional<UsbId> usb;
        std::optional<int> latencyTimerMs;
    } expected[] = {{"ttyACM0", "Adapter", "", "", UsbId{0x0403, 0x6001}, {}},
                    {"ttyS0", "", "", "serial", {}, {}},
                    {"ttyUSB7", "Some Maker USB Dual_Serial", "5A1B012345", "some_driver", UsbId{0x1A86, 0x55D3}, 16}};
    const std::vector<PortInfo> ports = listPorts(folders_);
    ASSERT_EQ(ports.size(), std::size(expected));
    for (std::size_t i = 0; i < ports.size(); ++i) {
        EXPECT_EQ(ports[i].path, folders_.devices + "/" + expected[i].name);
        EXPECT_EQ(ports[i].name, expected[i].name);
        EXPECT_EQ(ports[i].description, expected[i].description);
        EXPECT_EQ(ports[i].serialNumber, expected[i].serialNumber);
        EXPECT_EQ(ports[i].driver, expected[i].driver);
        EXPECT_EQ(ports[i].usb, expected[i].usb);
        EXPECT_EQ(ports[i].latencyTimerMs, expected[i].latencyTimerMs);
        EXPECT_TRUE(ports[i].access == PortInfo::Access::kAllowed && ports[i].holders.empty());
    }
}

TEST_F(PortListTest, ConsolesEmptyPlacesAndVanishedPortsAreLeftOut) {
    EXPECT_EQ(names(), "");
    addTerminal("ttyUSB10", bus_ / "1-1/a");
    addTerminal("ttyUSB9", bus_ / "1-1/b");
    addTerminal("ttyAMA0", root_ / "sys/devices/soc/uart");  // of the board, whatever its name
    addTerminal("ttyS4", root_ / "sys/devices/platform/serial8250");
    write(root_ / "sys/devices/platform/serial8250/tty/ttyS4/type", "0");
    fs::create_directories(root_ / "sys/devices/virtual/tty/tty1");  // no device behind it
    fs::create_directory_symlink(root_ / "sys/devices/virtual/tty/tty1", fs::path(folders_.terminals) / "tty1");
    for (const char* file : {"tty1", "null", "ttyUSB", "ttyUSBx", "ttyprintk"}) {
        write(fs::path(folders_.devices) / file, "");
    }
    addTerminal("ttyUSB11", bus_ / "1-1/c");
    fs::remove(fs::path(folders_.devices) / "ttyUSB11");
    // A virtual dongle's link; and one that leads nowhere any more.
    fs::create_symlink("/dev/null", fs::path(folders_.devices) / "ttyUSB12");
    fs::create_symlink("/dev/gone", fs::path(folders_.devices) / "ttyUSB13");
    EXPECT_EQ(names(), "ttyAMA0 ttyUSB9 ttyUSB10 ttyUSB12 ");
}

TEST_F(PortListTest, HoldersAreFoundByWhatTheyHaveOpen) {
    addTerminal("ttyUSB0", bus_ / "1-1/a");
    const fs::path real = root_ / "dev/pts5";
    write(real, "");
    fs::create_symlink(real, fs::path(folders_.devices) / "ttyUSB1");
    const fs::path first = fs::canonical(folders_.devices) / "ttyUSB0";
    addProcess(17, "recorder", {"/dev/null", first, first});
    addProcess(4, "other", {"socket:[1]", real});
    addProcess(5, "replugged", {first.string() + " (deleted)"});
    fs::create_directories(fs::path(folders_.processes) / "self/fd");
    fs::create_symlink(first, fs::path(folders_.processes) / "self/fd/3");  // no process of its own
    std::vector<PortInfo> ports = listPorts(folders_);
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_EQ(ports[0].holders, (std::vector<PortHolder>{{17, "recorder"}}));
    EXPECT_EQ(ports[1].holders, (std::vector<PortHolder>{{4, "other"}}));
    EXPECT_TRUE(ports[0].holdersComplete);

    // The real processes, of which this one holds a port.
    const test::TestLine line = test::plugLine();
    fs::create_symlink(line.hostPort, fs::path(folders_.devices) / "ttyACM0");
    SerialPort port(folders_.devices);
    ASSERT_EQ(port.open(R"(\\.\ttyACM0)", 2000000, 3, 0, 0), Port::kOpened);
    const PortFolders folders{folders_.devices, folders_.terminals, "/proc"};
    ports = listPorts(folders);
    ASSERT_EQ(ports[0].holders.size(), 1u);
    EXPECT_EQ(ports[0].holders[0].process, getpid());
    EXPECT_NE(ports[0].holders[0].program, "");
    port.close();
    EXPECT_TRUE(listPorts(folders)[0].holders.empty());
}

TEST_F(PortListTest, WhoMayOpenAPortAndThroughWhichGroup) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "files of somebody else need root";
    }
    addProcess(9, "hidden", {});
    fs::permissions(root_, fs::perms::all);
    fs::permissions(fs::path(folders_.processes) / "9/fd", fs::perms(0500));
    for (const auto& [name, rights] : {std::pair("ttyUSB0", 0666), {"ttyUSB1", 0660}, {"ttyUSB2", 0600}}) {
        addTerminal(name, bus_ / "1-1" / name);
        fs::permissions(fs::path(folders_.devices) / name, fs::perms(rights));
    }
    const std::string group = getgrgid(getegid())->gr_name;
    const auto asExpected = [&] {
        const std::vector<PortInfo> ports = listPorts(folders_);
        return ports.size() == 3 && ports[0].access == PortInfo::Access::kAllowed && ports[0].accessGroup.empty() &&
               ports[1].access == PortInfo::Access::kDenied && ports[1].accessGroup == group &&
               ports[2].access == PortInfo::Access::kDenied && ports[2].accessGroup.empty() &&
               !ports[0].holdersComplete;
    };
    EXPECT_EQ(test::asOrdinaryUser(asExpected), 1);
}

TEST_F(PortListTest, LowLatencyIsAskedOfTheTimerOfTheTerminalBehindALink) {
    addTerminal("ttyUSB3", bus_ / "1-1/a");
    write(bus_ / "1-1/a/latency_timer", "16");
    addTerminal("ttyUSB4", bus_ / "1-1/b");  // offers none
    fs::create_symlink("ttyUSB3", fs::path(folders_.devices) / "dongle");
    int master = -1;
    int slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);  // a terminal without the flag either
    for (const char* name : {"dongle", "ttyUSB4", "gone"}) {
        low_latency_linux::request(slave, folders_.devices + "/" + name, folders_.terminals);
    }
    close(master);
    close(slave);
    EXPECT_EQ(folder_.read("sys/devices/pci0/usb1/1-1/a/latency_timer").substr(0, 2), "1\n");
    EXPECT_FALSE(fs::exists(bus_ / "1-1/b/latency_timer"));
}

}  // namespace
}  // namespace kxorbeta_if
