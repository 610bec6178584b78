#include "dongle/terminal_posix.h"

#include <poll.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace dongle {

namespace {

timespec toTimespec(Time time) {
    const auto nanoseconds = std::max<std::int64_t>(0, time.count());
    return {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
}

}  // namespace

void TerminalFile::close() {
    if (descriptor_ >= 0) {
        ::close(std::exchange(descriptor_, -1));
    }
}

void TerminalFile::makeRaw() const {
    termios modes{};
    if (::tcgetattr(descriptor_, &modes) != 0) {
        throw std::system_error(errno, std::generic_category(), "tcgetattr");
    }
    ::cfmakeraw(&modes);
    modes.c_cflag |= CLOCAL | CREAD;
    modes.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | CRTSCTS);
    if (::tcsetattr(descriptor_, TCSANOW, &modes) != 0) {
        throw std::system_error(errno, std::generic_category(), "tcsetattr");
    }
}

std::size_t TerminalFile::read(std::span<std::uint8_t> into, Time most) const {
    pollfd waited{descriptor_, POLLIN, 0};
    const timespec limit = toTimespec(most);
    const int ready = ::ppoll(&waited, 1, &limit, nullptr);
    if (ready > 0 && (waited.revents & POLLIN) != 0) {
        const ssize_t count = ::read(descriptor_, into.data(), into.size());
        if (count > 0) {
            return static_cast<std::size_t>(count);
        }
    }
    return 0;
}

std::size_t TerminalFile::write(std::span<const std::uint8_t> bytes) const {
    const ssize_t count = ::write(descriptor_, bytes.data(), bytes.size());
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool TerminalFile::hungUp() const {
    pollfd state{descriptor_, 0, 0};
    return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

void sleepFor(Time time) {
    const timespec span = toTimespec(time);
    ::nanosleep(&span, nullptr);
}

}  // namespace dongle
