#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>

#include <barrier>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include "serial_port_test_support.h"
#include "support/ordinary_user_posix.h"
#include "support/process_memory.h"
#include "support/working_folder.h"

// What only a real pseudo-terminal shows: exclusive access, hang-up, signals, descriptors.

namespace kxorbeta_if {
namespace {

class SerialPortLinux : public testing::Test {
  protected:
    Port::Result open() { return openPort(port_, line_.hostPort); }

    test::TestLine line_ = test::plugLine();
    const std::size_t before_ = test::openHandles();
    SerialPort port_;
};

TEST_F(SerialPortLinux, WhatIsNoFreeSerialLineIsToldApart) {
    const test::WorkingFolder folder;
    const std::string file = folder.path() / "plain";
    std::ofstream(file) << "text";
    EXPECT_EQ(openPort(port_, folder.path()), Port::kOpenFailed) << "a folder";
    EXPECT_FALSE(port_.isOpen());
    EXPECT_EQ(openPort(port_, file), Port::kReadSettingsFailed) << "a plain file";
    EXPECT_TRUE(port_.isOpen());
    SerialPort other;
    EXPECT_EQ(openPort(other, file), Port::kOpenFailed) << "held by the first";
    port_.close();
    EXPECT_EQ(openPort(other, file), Port::kReadSettingsFailed);
    other.close();
    EXPECT_EQ(test::openHandles(), before_);
    EXPECT_EQ(std::filesystem::file_size(file), 4u);

    std::filesystem::permissions(line_.hostPort, std::filesystem::perms(0666));
    const auto opens = [&] { return ::open(line_.hostPort.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK) >= 0 ? 0 : errno; };
    ASSERT_EQ(open(), Port::kOpened);
    EXPECT_EQ(openPort(other, line_.hostPort), Port::kOpenFailed);
    EXPECT_FALSE(other.isOpen());
    EXPECT_EQ(test::asOrdinaryUser(opens), EBUSY);
    port_.close();
    EXPECT_EQ(test::asOrdinaryUser(opens), 0) << "closing gives exclusive access back";
    EXPECT_EQ(openPort(other, line_.hostPort), Port::kOpened);
}

TEST_F(SerialPortLinux, ALineThatHangsUpFailsAtOnce) {
    const std::string gone = std::to_string(Port::kReadFailed);
    ASSERT_EQ(open(), Port::kOpened);
    {
        const std::jthread reader([&] { EXPECT_EQ(read(port_, 1), gone) << "hung up while waiting"; });
        const std::jthread other([&] { EXPECT_EQ(readAvailable(port_, 1), gone) << "hung up while waiting"; });
        std::this_thread::sleep_for(30ms);
        line_.dongleEnd->hangUp();
    }
    EXPECT_EQ(read(port_, 1), gone);
    EXPECT_EQ(readAvailable(port_, 1), gone);
    EXPECT_EQ(port_.write("x", 1), Port::kWriteFailed);
    port_.close();
    EXPECT_EQ(open(), Port::kNoSuchPort);
    EXPECT_EQ(port_.systemError(), ENOENT);
}

/// This process's descriptor of a file; -1 when it has none.
int descriptorOf(const std::string& file) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;
        if (std::filesystem::read_symlink(entry, closed) == file) {
            return std::stoi(entry.path().filename());
        }
    }
    return -1;
}

/// From here on no read(2) or write(2) of this thread gets anywhere on `device`, whatever poll says: a device that is
/// always ready. False when the system does not let us.
bool makeReadinessSpurious(int device) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(device), 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_read, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_write, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{std::size(program), program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

std::chrono::nanoseconds processorTimeOfThisThread() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

TEST_F(SerialPortLinux, ADeviceThatIsReadyForNothingKeepsTheDeadline) {
    ASSERT_EQ(open(), Port::kOpened);
    const std::uint8_t byte = 'x';
    ASSERT_EQ(line_.dongleEnd->write({&byte, 1}), 1u);
    const int device = descriptorOf(line_.hostPort);
    ASSERT_GE(device, 0);
    std::atomic<bool> done{false};
    std::thread caller([&] {
        ASSERT_TRUE(makeReadinessSpurious(device));
        const auto start = steady_clock::now();
        EXPECT_EQ(read(port_, 1, 100), "");
        EXPECT_EQ(readAvailable(port_, 1, steady_clock::now() + 100ms), "");
        EXPECT_LT(processorTimeOfThisThread(), 50ms) << "must not keep a core busy";
        EXPECT_EQ(port_.write("x", 1, steady_clock::now() + 100ms), Port::kWriteFailed);
        EXPECT_GE(steady_clock::now() - start, 300ms);
        done = true;
    });
    EXPECT_TRUE(test::eventually([&] { return done.load(); }));
    port_.close();
    caller.join();
}

TEST_F(SerialPortLinux, TwoThreadsThatOpenAtOnceLeaveOneUsablePort) {
    for (int round = 0; round < 100; ++round) {
        std::barrier together(2);
        const auto openTogether = [&] {
            together.arrive_and_wait();
            EXPECT_EQ(open(), Port::kOpened);
        };
        std::thread other(openTogether);
        openTogether();
        other.join();
        EXPECT_EQ(port_.write("x", 1), 1);
        port_.close();
        ASSERT_EQ(test::openHandles(), before_) << round;
        ASSERT_EQ(open(), Port::kOpened) << "locked by ourselves";
        port_.close();
    }
}

TEST_F(SerialPortLinux, SignalsDoNotEndARead) {
    ASSERT_EQ(open(), Port::kOpened);
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: every wait is interrupted
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &old), 0);
    const itimerval often{{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const auto start = steady_clock::now();
    EXPECT_EQ(read(port_, 1, 100), "");
    EXPECT_GE(steady_clock::now() - start, 95ms);
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &old, nullptr);
}

}  // namespace
}  // namespace kxorbeta_if
