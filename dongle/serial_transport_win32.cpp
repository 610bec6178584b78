#include <windows.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "dongle/transport.h"

namespace dongle {

namespace {

// Reading and writing take turns on one handle, so both are short: a write gives up what the line does not take in
// time.
constexpr DWORD kWriteMilliseconds = 20;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

std::string devicePath(const std::string& name) {
    return name.starts_with("\\\\.\\") ? name : "\\\\.\\" + name;
}

DWORD toMilliseconds(Time time) {
    const auto count = std::chrono::ceil<std::chrono::milliseconds>(time).count();
    return static_cast<DWORD>(std::clamp<std::int64_t>(count, 1, 1000));
}

class SerialTransport : public Transport {
  public:
    explicit SerialTransport(const std::string& name) : name_(name) {
        port_ = ::CreateFileA(devicePath(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0,
                              nullptr);
        if (port_ == INVALID_HANDLE_VALUE) {
            fail(name);
        }
        try {
            set();
        } catch (...) {
            SerialTransport::hangUp();
            throw;
        }
    }
    ~SerialTransport() override { SerialTransport::hangUp(); }

    std::string hostPath() const override { return name_; }

    std::size_t read(std::span<std::uint8_t> into, Time most) override {
        const DWORD wait = toMilliseconds(most);
        DWORD count = 0;
        const bool usable = port_ != INVALID_HANDLE_VALUE && setReadWait(wait);
        if (usable && ::ReadFile(port_, into.data(), static_cast<DWORD>(into.size()), &count, nullptr) != 0) {
            return count;
        }
        ::Sleep(wait);
        return 0;
    }

    std::size_t write(std::span<const std::uint8_t> bytes) override {
        if (port_ == INVALID_HANDLE_VALUE) {
            return 0;
        }
        DWORD count = 0;
        ::WriteFile(port_, bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr);
        return count;
    }

    // The far end of a cable does not show.
    bool hostPresent() override { return port_ != INVALID_HANDLE_VALUE; }

    void hangUp() override {
        if (port_ != INVALID_HANDLE_VALUE) {
            ::CloseHandle(std::exchange(port_, INVALID_HANDLE_VALUE));
        }
    }

  private:
    void set() {
        DCB line{};
        line.DCBlength = sizeof line;
        if (::GetCommState(port_, &line) == 0) {
            fail(name_);
        }
        line.BaudRate = 2'000'000;
        line.ByteSize = 8;
        line.Parity = NOPARITY;
        line.StopBits = ONESTOPBIT;
        line.fBinary = TRUE;
        line.fParity = FALSE;
        line.fOutxCtsFlow = FALSE;
        line.fOutxDsrFlow = FALSE;
        line.fDsrSensitivity = FALSE;
        line.fOutX = FALSE;
        line.fInX = FALSE;
        line.fNull = FALSE;
        if (::SetCommState(port_, &line) == 0) {
            fail(name_);
        }
        if (!setReadWait(1)) {
            fail(name_);
        }
    }

    // With these values a read gives what is there at once, or waits for the first byte that long.
    bool setReadWait(DWORD milliseconds) {
        if (milliseconds == readWait_) {
            return true;
        }
        COMMTIMEOUTS waits{MAXDWORD, MAXDWORD, milliseconds, 0, kWriteMilliseconds};
        if (::SetCommTimeouts(port_, &waits) == 0) {
            return false;
        }
        readWait_ = milliseconds;
        return true;
    }

    HANDLE port_ = INVALID_HANDLE_VALUE;
    std::string name_;
    DWORD readWait_ = 0;
};

}  // namespace

std::unique_ptr<Transport> makeSerialTransport(const std::string& name) {
    return std::make_unique<SerialTransport>(name);
}

bool hasPseudoTerminals() {
    return false;
}

std::unique_ptr<Transport> makePtyTransport() {
    throw std::runtime_error("this system has no pseudo-terminals; name a serial port");
}

}  // namespace dongle
