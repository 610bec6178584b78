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
#include <string>
#include <utility>

#include "link/gap_read.h"
#include "link/line_settings_linux.h"
#include "link/low_latency_linux.h"
#include "link/native_port.h"
#include "link/port.h"
#include "link/port_names.h"

namespace kxorbeta_if {
namespace {

constexpr std::chrono::milliseconds kSpuriousPause{1};

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

enum class Readiness { kReady, kTimeout, kGone, kWoken, kClosing };

timespec timeUntil(Clock::Time deadline) {
    const Clock::Time now = systemClock().now();
    const auto left = deadline > now ? deadline - now : Clock::Duration::zero();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return {seconds.count(), std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count()};
}

class LinuxPort : public NativePort {
  public:
    LinuxPort(Descriptor device, Descriptor waker, Descriptor closer, std::string file)
        : device_(std::move(device)), waker_(std::move(waker)), closer_(std::move(closer)), file_(std::move(file)) {
        ::ioctl(device_.get(), TIOCEXCL);  // a plain file has no such mode; it fails when its settings are read
    }

    ~LinuxPort() override {
        ::ioctl(device_.get(), TIOCNXCL);  // a terminal keeps the mode as long as anybody has it open
    }

    bool readSettings() override { return line_settings_linux::get(device_.get(), line_) || fail(errno); }

    bool applySettings(const LineSettings& settings) override {
        const auto line = line_settings_linux::withSettings(line_, settings);
        if (!line) {
            return fail(EINVAL);
        }
        return line_settings_linux::set(device_.get(), *line) || fail(errno);
    }

    void restoreSettings() override { line_settings_linux::set(device_.get(), line_); }

    bool applyTimeouts() override { return true; }  // they are given to each wait

    int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) override {
        return readWithGap(buffer, maxBytes, timeoutMs, [this](void* into, std::uint32_t room, Clock::Time deadline) {
            return take(into, room, deadline, false);
        });
    }

    int readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) override {
        return maxBytes == 0 ? 0 : take(buffer, maxBytes, deadline, true);
    }

    int write(const void* data, std::size_t length, Clock::Time deadline,
              const std::atomic<std::uint32_t>* stop) override {
        const char* bytes = static_cast<const char*>(data);
        while (length > 0) {
            const ssize_t written = ::write(device_.get(), bytes, length);
            if (written > 0) {
                bytes += written;
                length -= static_cast<std::size_t>(written);
            } else if (written < 0 && errno != EAGAIN && errno != EINTR) {
                return Port::kWriteFailed;
            }
            // The deadline and closing count also when the line goes on taking bytes.
            if (length > 0 && (waitForRoom(deadline, stop) != Readiness::kReady || hasCome(deadline))) {
                return Port::kWriteFailed;
            }
        }
        return Port::kWritten;
    }

    void wake() override { ::eventfd_write(waker_.get(), 1); }
    void wakeAll() override { ::eventfd_write(closer_.get(), 1); }

    void requestLowLatency() override { low_latency_linux::request(device_.get(), file_); }

  private:
    Readiness waitForRoom(Clock::Time deadline, const std::atomic<std::uint32_t>* stop) const {
        if (stop == nullptr) {
            return wait(POLLOUT, deadline, false);
        }
        while (*stop == 0) {
            const Clock::Time look = std::min(deadline, systemClock().now() + Port::kStopLook);
            if (const Readiness seen = wait(POLLOUT, look, false); seen != Readiness::kTimeout || look == deadline) {
                return seen;
            }
        }
        return Readiness::kTimeout;
    }

    static bool hasCome(Clock::Time deadline) { return deadline != Port::kNever && systemClock().now() >= deadline; }

    /// What both ways of reading are made of: waits for bytes and takes what is there. 0 when none came by `deadline`
    /// or the wait was woken.
    int take(void* buffer, std::uint32_t maxBytes, Clock::Time deadline, bool wakeable) {
        short awaited = POLLIN;
        Clock::Time until = deadline;
        for (;;) {
            switch (wait(awaited, until, wakeable)) {
                case Readiness::kClosing:
                    return 0;
                case Readiness::kWoken: {
                    eventfd_t count = 0;
                    ::eventfd_read(waker_.get(), &count);
                    return 0;
                }
                case Readiness::kGone:
                    fail(lineError());
                    return Port::kReadFailed;
                case Readiness::kTimeout:
                    if (awaited != 0) {
                        return 0;
                    }
                    awaited = POLLIN;  // the pause is over
                    until = deadline;
                    continue;
                case Readiness::kReady:
                    break;
            }
            const ssize_t got = ::read(device_.get(), buffer, maxBytes);
            if (got > 0) {
                return static_cast<int>(got);
            }
            if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                fail(got == 0 ? lineError() : errno);
                return Port::kReadFailed;
            }
            if (hasCome(deadline)) {
                return 0;
            }
            // A device may say again and again that it is ready, and have nothing. That must not keep a core busy.
            awaited = 0;
            until = std::min(deadline, systemClock().now() + kSpuriousPause);
        }
    }

    /// What the system says of a line that is gone.
    int lineError() const {
        int waiting = 0;
        return ::ioctl(device_.get(), FIONREAD, &waiting) == 0 ? 0 : errno;
    }

    /// Waits until the device takes part in `events`. With none of them it merely sees what ends every wait.
    Readiness wait(short events, Clock::Time deadline, bool wakeable) const {
        for (;;) {
            pollfd watched[] = {{device_.get(), events, 0}, {closer_.get(), POLLIN, 0}, {waker_.get(), POLLIN, 0}};
            timespec left{};
            if (deadline != Port::kNever) {
                left = timeUntil(deadline);
            }
            const int count = ::ppoll(watched, wakeable ? 3 : 2, deadline != Port::kNever ? &left : nullptr, nullptr);
            if (count < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return Readiness::kGone;
            }
            if (watched[1].revents != 0) {
                return Readiness::kClosing;
            }
            if ((watched[0].revents & events) != 0) {
                return Readiness::kReady;
            }
            if (watched[0].revents != 0) {
                return Readiness::kGone;  // hung up or in error, with nothing left to take
            }
            if (wakeable && watched[2].revents != 0) {
                return Readiness::kWoken;
            }
            if (count == 0) {
                return Readiness::kTimeout;
            }
        }
    }

    Descriptor device_;
    Descriptor waker_;   // readable until the readAvailable() that it is meant for has seen it
    Descriptor closer_;  // readable for good once close wants the calls in flight to end
    std::string file_;
    termios2 line_{};
};

NativeOpening openPort(const char* path, const char* deviceFolder) {
    std::string file = deviceFile(path, deviceFolder);
    // Not blocking: opening a line must not wait for a carrier, and reads wait in poll.
    Descriptor device(::open(file.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    if (device.get() < 0) {
        return {nullptr, errno, errno == ENOENT};
    }
    // The lock comes before our own exclusive mode: it refuses a port that somebody else holds before we touch that
    // port's mode, from which root is exempt.
    if (::flock(device.get(), LOCK_EX | LOCK_NB) != 0) {
        return {nullptr, errno, false};
    }
    Descriptor waker(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (waker.get() < 0) {
        return {nullptr, errno, false};
    }
    Descriptor closer(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (closer.get() < 0) {
        return {nullptr, errno, false};
    }
    NativeOpening opened;
    opened.port = std::make_unique<LinuxPort>(std::move(device), std::move(waker), std::move(closer), std::move(file));
    return opened;
}

}  // namespace

NativeOpening openSynchronous(const char* path, const char* deviceFolder) {
    return openPort(path, deviceFolder);
}

NativeOpening openOverlapped(const char* path, const char* deviceFolder) {
    return openPort(path, deviceFolder);
}

}  // namespace kxorbeta_if
