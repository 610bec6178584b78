#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "dongle/terminal_posix.h"
#include "dongle/transport.h"

namespace dongle {

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int openMaster() {
    const int descriptor = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        fail("posix_openpt");
    }
    return descriptor;
}

class PtyTransport : public Transport {
  public:
    PtyTransport() : master_(openMaster()) {
        if (::grantpt(master_.descriptor()) != 0) {
            fail("grantpt");
        }
        if (::unlockpt(master_.descriptor()) != 0) {
            fail("unlockpt");
        }
        std::array<char, 128> path{};
        if (::ptsname_r(master_.descriptor(), path.data(), path.size()) != 0) {
            fail("ptsname_r");
        }
        hostPath_ = path.data();
        // Set from this side, so that a host which leaves the modes alone gets the bytes as they are.
        master_.makeRaw();
        // The system tells that the other end is closed only once it has been open.
        const TerminalFile other(openOther());
    }

    std::string hostPath() const override { return hostPath_; }

    std::size_t read(std::span<std::uint8_t> into, Time most) override {
        const std::size_t count = master_.read(into, most);
        if (count > 0 || !master_.hungUp()) {
            fresh_ = true;
        } else if (std::exchange(fresh_, false)) {
            leave();  // what the host has left must go at once
        } else {
            sleepFor(most);  // a hung-up line is always ready and never gives anything
        }
        return count;
    }

    std::size_t write(std::span<const std::uint8_t> bytes) override {
        fresh_ = true;
        return master_.write(bytes);
    }

    bool hostPresent() override { return !master_.hungUp(); }

    void hangUp() override { master_.close(); }

    std::optional<std::size_t> leftUnread() override { return std::exchange(left_, 0); }

    std::optional<std::size_t> takeBack() override {
        const TerminalFile other(openOther());
        if (other.descriptor() < 0) {
            return std::nullopt;
        }
        // A terminal hands out a page at a time, and a host that reads between two of ours would get what lies behind
        // the first. One that is reading gets the time to catch up; from one that is not, everything is taken.
        std::size_t last = 0;
        for (int tries = 0, still = 0; tries < kCatchUpTries && still < kStill; ++tries) {
            if (!anyLeft(other)) {
                return 0;
            }
            const std::size_t waiting = waitingAt(other);
            still = waiting == last ? still + 1 : 0;
            last = waiting;
            sleepFor(kCatchUpPause);
        }
        return drain(other);
    }

  private:
    static constexpr int kCatchUpTries = 100;
    static constexpr int kStill = 10;
    static constexpr Time kCatchUpPause = 1ms;

    int openOther() const {
        return master_.descriptor() < 0 ? -1 : ::open(hostPath_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    }

    // A serial port loses what nobody reads before it is closed; a pseudo-terminal would keep it for the next host. It
    // is read, not flushed: what is still on its way inside the system comes along, and all of it is counted.
    void leave() {
        const TerminalFile other(openOther());
        if (other.descriptor() < 0) {
            left_.reset();
        } else if (left_) {
            *left_ += drain(other);
        }
    }

    /// Whether anything is left. The first question makes the system hand over what is on its way inside it, but may
    /// say no to less than the host wants at once; the second one counts only what has been handed over.
    static bool anyLeft(const TerminalFile& end) {
        pollfd state{end.descriptor(), POLLIN, 0};
        return (::poll(&state, 1, 0) > 0 && (state.revents & POLLIN) != 0) || waitingAt(end) > 0;
    }

    /// What a read of that end would get at once.
    static std::size_t waitingAt(const TerminalFile& end) {
        int waiting = 0;
        return ::ioctl(end.descriptor(), FIONREAD, &waiting) == 0 ? static_cast<std::size_t>(waiting) : 0;
    }

    static std::size_t drain(const TerminalFile& other) {
        std::array<std::uint8_t, 8192> bytes{};
        std::size_t all = 0;
        // A read is refused for a moment while the host is in one itself.
        for (int refused = 0; refused < kCatchUpTries;) {
            const ssize_t count = ::read(other.descriptor(), bytes.data(), bytes.size());
            if (count > 0) {
                all += static_cast<std::size_t>(count);
            } else if (!anyLeft(other)) {
                break;
            } else {
                ++refused;
            }
        }
        return all;
    }

    TerminalFile master_;
    std::string hostPath_;
    bool fresh_ = false;  // something may have happened at the other end since it was last found closed
    std::optional<std::size_t> left_ = 0;
};

}  // namespace

bool hasPseudoTerminals() {
    return true;
}

std::unique_ptr<Transport> makePtyTransport() {
    return std::make_unique<PtyTransport>();
}

}  // namespace dongle
