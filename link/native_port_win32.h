#pragma once

#include <utility>

#include "link/native_port.h"

#include <windows.h>

namespace kxorbeta_if {

/// A handle that is closed with its owner. What kind of failure value it has does not matter: both count as none.
class Win32Handle {
  public:
    explicit Win32Handle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    Win32Handle(Win32Handle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    ~Win32Handle() {
        if (handle_ != nullptr) {
            CloseHandle(handle_);
        }
    }
    Win32Handle& operator=(const Win32Handle&) = delete;
    HANDLE get() const { return handle_; }  ///< null when there is none

  private:
    HANDLE handle_;
};

/// What both kinds of port have in common: the device and its line settings.
class Win32Port : public NativePort {
  public:
    bool readSettings() override;
    bool applySettings(const LineSettings& settings) override;
    void restoreSettings() override;

  protected:
    explicit Win32Port(Win32Handle device) : device_(std::move(device)) {}

    HANDLE device() const { return device_.get(); }

    static DWORD millisecondsUntil(Clock::Time deadline);  ///< rounded up; INFINITE for Port::kNever

    /// Opens `path` for this process alone.
    static Win32Handle openDevice(const char* path, DWORD flags) {
        return Win32Handle(CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr));
    }

    /// Of the call that failed just before.
    static NativeOpening failure();

  private:
    Win32Handle device_;
    DCB line_{};
    COMMTIMEOUTS timeoutsFound_{};
};

/// `line` with the given rate, data bits, stop bits and parity, all else as it was.
DCB withSettings(DCB line, const LineSettings& settings);

}  // namespace kxorbeta_if
