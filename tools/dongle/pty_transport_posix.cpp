#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "dongle/terminal_posix.h"
#include "dongle/transport.h"

namespace dongle {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int openMaster() {
    const int descriptor = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        fail("posix_openpt");
    return descriptor;
}

class PtyTransport : public Transport {
  public:
    PtyTransport() : master_(openMaster()) {
        if (::grantpt(master_.descriptor()) != 0)
            fail("grantpt");
        if (::unlockpt(master_.descriptor()) != 0)
            fail("unlockpt");
        std::array<char, 128> path{};
        if (::ptsname_r(master_.descriptor(), path.data(), path.size()) != 0)
            fail("ptsname_r");
        hostPath_ = path.data();
        // Set from this side, so that a host which leaves the modes alone gets the bytes as they are.
        master_.makeRaw();
        // The system tells that the other end is closed only once it has been open.
        forgetUnread();
    }

    std::string hostPath() const override { return hostPath_; }

    std::size_t read(std::span<std::uint8_t> into, Time most) override {
        const std::size_t count = master_.read(into, most);
        const bool gone = count == 0 && master_.hungUp();
        if (gone && !left_)
            forgetUnread();
        left_ = gone;
        return count;
    }

    std::size_t write(std::span<const std::uint8_t> bytes) override { return master_.write(bytes); }

    bool hostPresent() override { return !master_.hungUp(); }

    void hangUp() override { master_.close(); }

  private:
    // A serial port loses what nobody reads before it is closed; a pseudo-terminal would keep it for the next host: on
    // the way, and at the other end.
    void forgetUnread() const {
        if (master_.descriptor() < 0)
            return;
        const int other = ::open(hostPath_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        if (other < 0)
            return;
        ::tcflush(other, TCIFLUSH);
        ::close(other);
    }

    TerminalFile master_;
    std::string hostPath_;
    bool left_ = true;  // the host has closed its end, and that has been dealt with
};

}  // namespace

bool hasPseudoTerminals() {
    return true;
}

std::unique_ptr<Transport> makePtyTransport() {
    return std::make_unique<PtyTransport>();
}

}  // namespace dongle
