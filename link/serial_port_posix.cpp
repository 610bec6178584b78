#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <utility>

#include "link/linux_line.h"
#include "link/port_names.h"
#include "link/serial_native.h"

namespace kxorbeta_if::serial_native {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kByteGap{10};

class Descriptor {
  public:
    explicit Descriptor(int number) : number_(number) {}
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    ~Descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return number_; }

  private:
    int number_;
};

enum class Readiness { kReady, kTimeout, kGone, kWoken };

timespec untilDeadline(Clock::time_point deadline) {
    const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return {seconds.count(), std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count()};
}

}  // namespace

struct Port {
    Port(Descriptor deviceFile, Descriptor wakerFile) : device(std::move(deviceFile)), waker(std::move(wakerFile)) {}

    Descriptor device;
    Descriptor waker;  // readable for good once close wants the calls in flight to end
    termios2 line{};

    /// Waits until the device takes part in `events`. Without a deadline for as long as it takes.
    Readiness wait(short events, const Clock::time_point* deadline) const {
        for (;;) {
            pollfd watched[] = {{device.get(), events, 0}, {waker.get(), POLLIN, 0}};
            timespec left{};
            if (deadline != nullptr) {
                left = untilDeadline(*deadline);
            }
            const int count = ::ppoll(watched, 2, deadline != nullptr ? &left : nullptr, nullptr);
            if (count < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return Readiness::kGone;
            }
            if (watched[1].revents != 0) {
                return Readiness::kWoken;
            }
            if ((watched[0].revents & events) != 0) {
                return Readiness::kReady;
            }
            if (watched[0].revents != 0) {
                return Readiness::kGone;  // hung up or in error, with nothing left to take
            }
            if (count == 0) {
                return Readiness::kTimeout;
            }
        }
    }
};

OpenResult open(const char* path, const char* deviceFolder) {
    const std::string file = deviceFile(path, deviceFolder);
    // Not blocking: opening a line must not wait for a carrier, and reads wait in poll.
    Descriptor device(::open(file.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (device.get() < 0) {
        return {nullptr, errno == ENOENT};
    }
    auto port = std::make_unique<Port>(std::move(device), Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    // The lock comes first: it refuses a port that somebody else holds before we touch that port's own exclusive mode,
    // from which root is exempt.
    if (port->waker.get() < 0 || ::flock(port->device.get(), LOCK_EX | LOCK_NB) != 0) {
        return {};
    }
    ::ioctl(port->device.get(), TIOCEXCL);  // a plain file has no such mode; it fails when its settings are read
    return {port.release(), false};
}

bool readSettings(Port& port) {
    return linux_line::get(port.device.get(), port.line);
}

bool applySettings(Port& port, const LineSettings& settings) {
    const auto line = linux_line::withSettings(port.line, settings);
    return line && linux_line::set(port.device.get(), *line);
}

bool applyTimeouts(Port&) {
    return true;
}  // they are given to each wait

int read(Port& port, void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    Clock::time_point next = deadline;
    std::uint32_t count = 0;
    while (count < maxBytes) {
        const Readiness readiness = port.wait(POLLIN, &next);
        if (readiness == Readiness::kTimeout || readiness == Readiness::kWoken) {
            break;
        }
        const ssize_t got = readiness == Readiness::kReady
                                ? ::read(port.device.get(), static_cast<char*>(buffer) + count, maxBytes - count)
                                : 0;
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (got <= 0) {  // hung up: what came before it still counts
            return count > 0 ? static_cast<int>(count) : -2;
        }
        count += static_cast<std::uint32_t>(got);
        const Clock::time_point now = Clock::now();
        if (now >= deadline) {
            break;  // however fast bytes keep coming
        }
        next = std::min(deadline, now + kByteGap);
    }
    return static_cast<int>(count);
}

int write(Port& port, const void* data, std::size_t length) {
    const char* bytes = static_cast<const char*>(data);
    while (length > 0) {
        const ssize_t written = ::write(port.device.get(), bytes, length);
        if (written > 0) {
            bytes += written;
            length -= static_cast<std::size_t>(written);
        } else if (written < 0 && errno == EAGAIN) {
            if (port.wait(POLLOUT, nullptr) != Readiness::kReady) {
                return -1;
            }
        } else if (written < 0 && errno != EINTR) {
            return -1;
        }
    }
    return 1;
}

void wake(Port& port) {
    ::eventfd_write(port.waker.get(), 1);
}

void close(Port* port) {
    ::ioctl(port->device.get(), TIOCNXCL);  // a terminal keeps the mode as long as anybody has it open
    delete port;
}

}  // namespace kxorbeta_if::serial_native
