#include "link/native_port_win32.h"

#include <algorithm>
#include <chrono>

#include "link/port.h"

namespace kxorbeta_if {
namespace {

BYTE parityCode(LineSettings::Parity parity) {
    switch (parity) {
        case LineSettings::Parity::kEven:
            return EVENPARITY;
        case LineSettings::Parity::kOdd:
            return ODDPARITY;
        case LineSettings::Parity::kMark:
            return MARKPARITY;
        case LineSettings::Parity::kSpace:
            return SPACEPARITY;
        case LineSettings::Parity::kNone:
            break;
    }
    return NOPARITY;
}

BYTE stopCode(LineSettings::Stop stop) {
    switch (stop) {
        case LineSettings::Stop::kOneAndHalf:
            return ONE5STOPBITS;
        case LineSettings::Stop::kTwo:
            return TWOSTOPBITS;
        case LineSettings::Stop::kOne:
            break;
    }
    return ONESTOPBIT;
}

}  // namespace

DCB withSettings(DCB line, const LineSettings& settings) {
    line.BaudRate = settings.baud;
    line.ByteSize = static_cast<BYTE>(settings.dataBits);
    line.Parity = parityCode(settings.parity);
    line.StopBits = stopCode(settings.stop);
    return line;
}

bool Win32Port::readSettings() {
    line_.DCBlength = sizeof line_;
    GetCommTimeouts(device(), &timeoutsFound_);
    return GetCommState(device(), &line_) != 0 || fail(static_cast<int>(GetLastError()));
}

bool Win32Port::applySettings(const LineSettings& settings) {
    DCB line = withSettings(line_, settings);
    return SetCommState(device(), &line) != 0 || fail(static_cast<int>(GetLastError()));
}

void Win32Port::restoreSettings() {
    SetCommState(device(), &line_);
    SetCommTimeouts(device(), &timeoutsFound_);
}

DWORD Win32Port::millisecondsUntil(Clock::Time deadline) {
    if (deadline == Port::kNever) {
        return INFINITE;
    }
    const Clock::Time now = systemClock().now();
    if (deadline <= now) {
        return 0;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    return static_cast<DWORD>(std::min<std::int64_t>(left, INFINITE - 1));
}

NativeOpening Win32Port::failure() {
    const DWORD error = GetLastError();
    return {nullptr, static_cast<int>(error), error == ERROR_FILE_NOT_FOUND};
}

}  // namespace kxorbeta_if
