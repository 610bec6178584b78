#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <utility>

#include "link/gap_read.h"
#include "link/native_port_win32.h"
#include "link/port.h"

namespace kxorbeta_if {
namespace {

constexpr DWORD kByteGapMs = kByteGap.count();
constexpr DWORD kNoLimit = 0xFFFFFFFF;

// The longest that a read stays in the driver. Where the driver cannot be asked to give up (Wine), closing waits that
// long; on Windows a write has to wait for a read in the driver to end.
constexpr DWORD kLongestStayMs = 50;

class SynchronousPort : public Win32Port {
  public:
    static NativeOpening open(const char* path) {
        Win32Handle device = openDevice(path, 0);
        if (device.get() == nullptr) {
            return failure();
        }
        Win32Handle woken(CreateEventA(nullptr, FALSE, FALSE, nullptr));
        if (woken.get() == nullptr) {
            return failure();
        }
        Win32Handle closing(CreateEventA(nullptr, TRUE, FALSE, nullptr));
        if (closing.get() == nullptr) {
            return failure();
        }
        NativeOpening opened;
        opened.port = std::make_unique<SynchronousPort>(std::move(device), std::move(woken), std::move(closing));
        return opened;
    }

    SynchronousPort(Win32Handle device, Win32Handle woken, Win32Handle closing)
        : Win32Port(std::move(device)), woken_(std::move(woken)), closing_(std::move(closing)) {}

    bool applyTimeouts() override {
        return setTimeouts(kByteGapMs, kNoLimit) || fail(static_cast<int>(GetLastError()));
    }

    int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) override {
        const Clock::Time deadline = systemClock().now() + std::chrono::milliseconds(timeoutMs);
        DWORD left = timeoutMs;
        DWORD count = 0;
        for (;;) {
            const Clock::Time start = systemClock().now();
            const DWORD stay = std::min(left, count == 0 ? kLongestStayMs : kByteGapMs);
            // No time at all would mean no limit to the driver, and no gap the bytes that are there.
            if (!setTimeouts(stay > 0 ? kByteGapMs : MAXDWORD, stay)) {
                return count > 0 ? static_cast<int>(count) : Port::kTimeoutNotApplied;
            }
            DWORD got = 0;
            if (ReadFile(device(), static_cast<char*>(buffer) + count, maxBytes - count, &got, nullptr) == 0) {
                return count > 0 ? static_cast<int>(count) : isClosing() ? 0 : Port::kReadFailed;
            }
            count += got;
            if (count == 0 && maxBytes > 0 && isGone()) {
                return Port::kReadFailed;  // Wine reads nothing from a line that hung up, and calls that success
            }
            // Only a read that lasted its whole stay may have more to come: others ended with a gap, a full buffer, or
            // a driver that answers early.
            if (systemClock().now() - start < std::chrono::milliseconds(stay) || count == maxBytes || isClosing() ||
                (got == 0 && count > 0)) {
                return static_cast<int>(count);
            }
            left = millisecondsUntil(deadline);
            if (left == 0) {
                return static_cast<int>(count);
            }
        }
    }

    int readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) override {
        const HANDLE ends[] = {closing_.get(), woken_.get()};
        for (;;) {
            DWORD errors = 0;
            COMSTAT line{};
            if (ClearCommError(device(), &errors, &line) == 0) {
                return Port::kReadFailed;
            }
            const DWORD count = std::min<DWORD>(line.cbInQue, maxBytes);
            if (count > 0) {
                return readNow(buffer, count);
            }
            const DWORD pause = std::min<DWORD>(millisecondsUntil(deadline), 1);
            if (pause == 0 || maxBytes == 0 || WaitForMultipleObjects(2, ends, FALSE, pause) != WAIT_TIMEOUT) {
                return 0;
            }
        }
    }

    int write(const void* data, std::size_t length, Clock::Time deadline, const std::atomic<std::uint32_t>*) override {
        const DWORD limit = std::max<DWORD>(millisecondsUntil(deadline), 1);
        if (isClosing() || !setWriteLimit(limit)) {
            return Port::kWriteFailed;
        }
        DWORD count = 0;
        const bool done = WriteFile(device(), data, static_cast<DWORD>(length), &count, nullptr) != 0;
        // Whether the count is told is up to the driver; where nothing limits the time, it need not be.
        return done && (limit == kNoLimit || count == length) ? Port::kWritten : Port::kWriteFailed;
    }

    void wake() override { SetEvent(woken_.get()); }
    void wakeAll() override {
        SetEvent(closing_.get());
        CancelIoEx(device(), nullptr);
    }

  private:
    bool isClosing() const { return WaitForSingleObject(closing_.get(), 0) == WAIT_OBJECT_0; }

    bool isGone() const {
        DWORD errors = 0;
        return ClearCommError(device(), &errors, nullptr) == 0;
    }

    int readNow(void* buffer, DWORD maxBytes) {
        DWORD count = 0;
        if (!setTimeouts(MAXDWORD, 0) || ReadFile(device(), buffer, maxBytes, &count, nullptr) == 0) {
            return isClosing() ? 0 : Port::kReadFailed;
        }
        return static_cast<int>(count);
    }

    // The driver takes its time-outs as one record. Reads set their part of it while a write may be about to begin.
    bool setTimeouts(DWORD readGap, DWORD readTotal) {
        const std::lock_guard guard(timeoutsMutex_);
        timeouts_.ReadIntervalTimeout = readGap;
        timeouts_.ReadTotalTimeoutConstant = readTotal;
        return SetCommTimeouts(device(), &timeouts_) != 0;
    }
    bool setWriteLimit(DWORD limit) {
        const std::lock_guard guard(timeoutsMutex_);
        if (timeouts_.WriteTotalTimeoutConstant == limit) {
            return true;
        }
        timeouts_.WriteTotalTimeoutConstant = limit;
        return SetCommTimeouts(device(), &timeouts_) != 0;
    }

    Win32Handle woken_;    // until the readAvailable() that it is meant for has seen it
    Win32Handle closing_;  // for good once close wants the calls in flight to end
    std::mutex timeoutsMutex_;
    COMMTIMEOUTS timeouts_ = {kByteGapMs, 0, kNoLimit, 0, kNoLimit};
};

}  // namespace

NativeOpening openSynchronous(const char* path, const char*) {
    return SynchronousPort::open(path);
}

}  // namespace kxorbeta_if
