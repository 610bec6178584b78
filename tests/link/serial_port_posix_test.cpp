#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "core/scan.h"
#include "dongle/dongle_runner.h"
#include "link/serial_port.h"
#include "support/eventually.h"
#include "support/test_line.h"
#include "support/working_folder.h"

// What only a real pseudo-terminal shows: exclusive access, hang-up, signals, descriptors.

namespace kxorbeta_if {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

long openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

SerialPort::Result openPath(SerialPort& port, const std::string& path) {
    return port.open((R"(\\.\)" + path).c_str(), 2000000, 3, 0, 0);
}

TEST(SerialPortPosix, WhatIsNoFreeSerialLineIsToldApart) {
    const test::WorkingFolder folder;
    const std::string file = folder.path() / "plain";
    std::ofstream(file) << "text";
    const long before = openDescriptors();
    {
        SerialPort port;
        EXPECT_EQ(openPath(port, folder.path()), SerialPort::kOpenFailed) << "a folder";
        EXPECT_FALSE(port.isOpen());
        EXPECT_EQ(openPath(port, file), SerialPort::kReadSettingsFailed) << "a plain file";
        EXPECT_TRUE(port.isOpen());
        SerialPort second;
        EXPECT_EQ(openPath(second, file), SerialPort::kOpenFailed) << "held by the first";
        port.close();
        EXPECT_EQ(openPath(second, file), SerialPort::kReadSettingsFailed);
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(std::filesystem::file_size(file), 4u);
}

TEST(SerialPortPosix, APortInUseIsRefusedToEverybodyElse) {
    const test::TestLine line = test::plugLine();
    ASSERT_EQ(chmod(line.hostPort.c_str(), 0666), 0);
    SerialPort holder;
    ASSERT_EQ(openPath(holder, line.hostPort), SerialPort::kOpened);
    SerialPort other;
    EXPECT_EQ(openPath(other, line.hostPort), SerialPort::kOpenFailed);
    EXPECT_FALSE(other.isOpen());

    const auto asOrdinaryUser = [&] {
        const pid_t child = fork();
        if (child == 0) {
            if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
                _exit(99);
            }
            const int device = ::open(line.hostPort.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
            const int error = errno;
            _exit(device >= 0 ? 0 : error);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WEXITSTATUS(status);
    };
    EXPECT_EQ(asOrdinaryUser(), EBUSY);
    holder.close();
    EXPECT_EQ(asOrdinaryUser(), 0) << "closing gives exclusive access back";
    EXPECT_EQ(openPath(other, line.hostPort), SerialPort::kOpened);
}

TEST(SerialPortPosix, ALineThatHangsUpFailsSlowlyAndWhatCameBeforeCounts) {
    test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openPath(port, line.hostPort), SerialPort::kOpened);
    std::array<char, 16> buffer{};
    std::thread unplug([&] {
        std::this_thread::sleep_for(30ms);
        line.dongleEnd->hangUp();
    });
    const auto start = Clock::now();
    EXPECT_EQ(port.read(buffer.data(), buffer.size(), 150), -2) << "hung up while waiting";
    EXPECT_GE(Clock::now() - start, 145ms);
    unplug.join();
    const auto again = Clock::now();
    EXPECT_EQ(port.read(buffer.data(), buffer.size(), 60), -2);
    EXPECT_GE(Clock::now() - again, 55ms) << "a lost dongle must not burn a core";
    EXPECT_EQ(port.write("x", 1), -1);
    port.close();
    EXPECT_EQ(openPath(port, line.hostPort), SerialPort::kNoSuchPort);
}

TEST(SerialPortPosix, ALineThatHangsUpInMidScanEndsTheScanInOrder) {
    test::TestLine line = test::plugLine();
    dongle::Settings settings = dongle::defaultSettings(1);
    settings.replies.scanDuration = 60s;
    dongle::Runner dongle(settings, std::move(line.dongleEnd));
    Context context;
    context.timing.scanReads = 25;
    context.timing.scanReadTimeoutMs = 20;
    ASSERT_EQ(openPath(context.port, line.hostPort), SerialPort::kOpened);
    std::thread unplug([&] {
        EXPECT_TRUE(test::eventually(
            [&] { return dongle.with([](dongle::Engine& e) { return e.log().countTexts("AT+SCAN") == 1; }); }));
        dongle.hangUp();
    });
    EXPECT_FALSE(scan(context));
    unplug.join();
    EXPECT_FALSE(context.flags.scanning);
    EXPECT_FALSE(scan(context)) << "the port is gone, which costs the reads and nothing else";
}

TEST(SerialPortPosix, CloseWakesAReadAndAWriteThatWouldLastForEver) {
    test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openPath(port, line.hostPort), SerialPort::kOpened);
    std::atomic<int> readResult{99};
    std::atomic<int> writeResult{99};
    std::thread reader([&] {
        char byte = 0;
        readResult = port.read(&byte, 1, 3600 * 1000);
    });
    std::thread writer([&] {
        const std::string much(1 << 20, 'x');  // nobody reads, so the line is full soon
        writeResult = port.write(much.data(), much.size());
    });
    std::this_thread::sleep_for(50ms);
    port.close();
    reader.join();
    writer.join();
    EXPECT_EQ(readResult, 0);
    EXPECT_EQ(writeResult, -1);
}

TEST(SerialPortPosix, SignalsDoNotEndARead) {
    test::TestLine line = test::plugLine();
    SerialPort port;
    ASSERT_EQ(openPath(port, line.hostPort), SerialPort::kOpened);
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: every wait is interrupted
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &old), 0);
    const itimerval often{{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    char byte = 0;
    const auto start = Clock::now();
    const int result = port.read(&byte, 1, 100);
    const auto took = Clock::now() - start;
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_GE(took, 95ms);
}

TEST(SerialPortPosix, TenThousandCyclesLeaveNoDescriptor) {
    const test::TestLine line = test::plugLine();
    const long before = openDescriptors();
    SerialPort port;
    for (int i = 0; i < 10000; ++i) {
        ASSERT_EQ(openPath(port, line.hostPort), SerialPort::kOpened) << i;
        port.close();
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace kxorbeta_if
