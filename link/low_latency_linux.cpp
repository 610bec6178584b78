#include "link/low_latency_linux.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace kxorbeta_if::low_latency_linux {
namespace {

void setFlag(int device) {
    constexpr int flag = static_cast<int>(ASYNC_LOW_LATENCY);
    serial_struct driver{};
    if (::ioctl(device, TIOCGSERIAL, &driver) == 0 && (driver.flags & flag) == 0) {
        driver.flags |= flag;
        ::ioctl(device, TIOCSSERIAL, &driver);
    }
}

void setTimer(const std::string& file) {
    const int timer = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);  // fails where there is none, or for root alone
    if (timer >= 0) {
        static_cast<void>(!::write(timer, "1\n", 2));
        ::close(timer);
    }
}

}  // namespace

void request(int device, const std::string& deviceFile, const std::string& ttyFolder) {
    setFlag(device);
    std::error_code missing;
    const std::string name = std::filesystem::canonical(deviceFile, missing).filename();
    if (!missing) {
        setTimer(ttyFolder + "/" + name + "/device/latency_timer");
    }
}

}  // namespace kxorbeta_if::low_latency_linux
