#include <asm/termbits.h>
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <system_error>

#include "dongle/terminal_posix.h"
#include "dongle/transport.h"

namespace dongle {

namespace {

constexpr speed_t kBaud = 2'000'000;

int openPort(const std::string& name) {
    const int descriptor = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    return descriptor;
}

class SerialTransport : public Transport {
  public:
    explicit SerialTransport(const std::string& name) : port_(openPort(name)), name_(name) {
        port_.makeRaw();
        // The kernel's own record, because the C library's knows only some rates.
        termios2 modes{};
        if (::ioctl(port_.descriptor(), TCGETS2, &modes) != 0) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        modes.c_cflag &= ~static_cast<tcflag_t>(CBAUD);
        modes.c_cflag |= BOTHER;
        modes.c_ispeed = kBaud;
        modes.c_ospeed = kBaud;
        if (::ioctl(port_.descriptor(), TCSETS2, &modes) != 0) {
            throw std::system_error(errno, std::generic_category(), name);
        }
    }

    std::string hostPath() const override { return name_; }
    std::size_t read(std::span<std::uint8_t> into, Time most) override {
        const std::size_t count = port_.read(into, most);
        // A broken line is always ready and never gives anything.
        if (count == 0 && port_.hungUp()) {
            sleepFor(most);
        }
        return count;
    }
    std::size_t write(std::span<const std::uint8_t> bytes) override { return port_.write(bytes); }
    // The far end of a cable does not show.
    bool hostPresent() override { return port_.descriptor() >= 0; }
    void hangUp() override { port_.close(); }

  private:
    TerminalFile port_;
    std::string name_;
};

}  // namespace

std::unique_ptr<Transport> makeSerialTransport(const std::string& name) {
    return std::make_unique<SerialTransport>(name);
}

}  // namespace dongle
