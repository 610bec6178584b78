#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <chrono>
#include <memory>

#include "link/serial_native.h"

namespace kxorbeta_if::serial_native {
namespace {

constexpr DWORD kByteGapMs = 10;
constexpr DWORD kNoLimit = 0xFFFFFFFF;

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

struct Port {
    HANDLE handle = INVALID_HANDLE_VALUE;
    DCB line{};
    COMMTIMEOUTS timeouts{};
};

OpenResult open(const char* path, const char*) {
    auto port = std::make_unique<Port>();
    port->handle = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (port->handle == INVALID_HANDLE_VALUE) {
        return {nullptr, GetLastError() == ERROR_FILE_NOT_FOUND};
    }
    return {port.release(), false};
}

bool readSettings(Port& port) {
    port.line.DCBlength = sizeof port.line;
    return GetCommState(port.handle, &port.line) != 0;
}

bool applySettings(Port& port, const LineSettings& settings) {
    port.line.BaudRate = settings.baud;
    port.line.ByteSize = static_cast<BYTE>(settings.dataBits);
    port.line.Parity = parityCode(settings.parity);
    port.line.StopBits = stopCode(settings.stop);
    return SetCommState(port.handle, &port.line) != 0;
}

bool applyTimeouts(Port& port) {
    port.timeouts = {kByteGapMs, 0, kNoLimit, 0, kNoLimit};
    return SetCommTimeouts(port.handle, &port.timeouts) != 0;
}

int read(Port& port, void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) {
    port.timeouts.ReadTotalTimeoutConstant = timeoutMs;
    if (SetCommTimeouts(port.handle, &port.timeouts) == 0) {
        return -1;
    }
    using Clock = std::chrono::steady_clock;
    const auto early = Clock::now() + std::chrono::milliseconds(timeoutMs / 2);
    DWORD count = 0;
    if (ReadFile(port.handle, buffer, maxBytes, &count, nullptr) == 0) {
        return -2;
    }
    // Some drivers answer for a device that was unplugged with success and nothing, at once.
    const bool gone = count == 0 && maxBytes > 0 && Clock::now() < early;
    return gone ? -2 : static_cast<int>(count);
}

int write(Port& port, const void* data, std::size_t length) {
    DWORD count = 0;
    return WriteFile(port.handle, data, static_cast<DWORD>(length), &count, nullptr) != 0 ? 1 : -1;
}

void wake(Port& port) {
    CancelIoEx(port.handle, nullptr);
}

void close(Port* port) {
    CloseHandle(port->handle);
    delete port;
}

}  // namespace kxorbeta_if::serial_native
