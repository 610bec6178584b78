#include "link/line_settings_linux.h"

#include <asm/ioctls.h>

// Declared here because <sys/ioctl.h> pulls in the C library's terminal records.
extern "C" int ioctl(int device, unsigned long request, ...) noexcept;

namespace kxorbeta_if::line_settings_linux {

bool get(int device, termios2& line) {
    return ioctl(device, TCGETS2, &line) == 0;
}

bool set(int device, const termios2& line) {
    return ioctl(device, TCSETS2, &line) == 0;
}

std::optional<termios2> withSettings(termios2 line, const LineSettings& settings) {
    line.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CIBAUD | CSIZE | CSTOPB | PARENB | PARODD | CMSPAR);
    line.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    line.c_ispeed = settings.baud;
    line.c_ospeed = settings.baud;

    switch (settings.dataBits) {
        case 5:
            line.c_cflag |= CS5;
            break;
        case 6:
            line.c_cflag |= CS6;
            break;
        case 7:
            line.c_cflag |= CS7;
            break;
        case 8:
            line.c_cflag |= CS8;
            break;
        default:
            return std::nullopt;
    }
    switch (settings.stop) {
        case LineSettings::Stop::kOne:
            break;
        case LineSettings::Stop::kOneAndHalf:
            if (settings.dataBits != 5) {
                return std::nullopt;
            }
            [[fallthrough]];  // with 5 data bits, two stop bits are one and a half on the line
        case LineSettings::Stop::kTwo:
            line.c_cflag |= CSTOPB;
            break;
    }
    switch (settings.parity) {
        case LineSettings::Parity::kNone:
            break;
        case LineSettings::Parity::kEven:
            line.c_cflag |= PARENB;
            break;
        case LineSettings::Parity::kOdd:
            line.c_cflag |= PARENB | PARODD;
            break;
        case LineSettings::Parity::kMark:
            line.c_cflag |= PARENB | PARODD | CMSPAR;
            break;
        case LineSettings::Parity::kSpace:
            line.c_cflag |= PARENB | CMSPAR;
            break;
    }

    // Raw mode: bytes pass as they are, nothing is echoed, and no byte is a signal or an end of line.
    line.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON);
    line.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    line.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    line.c_cflag |= CREAD;
    line.c_cc[VMIN] = 1;
    line.c_cc[VTIME] = 0;
    return line;
}

}  // namespace kxorbeta_if::line_settings_linux
