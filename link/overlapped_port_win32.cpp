#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>

#include "link/gap_read.h"
#include "link/native_port_win32.h"
#include "link/port.h"

namespace kxorbeta_if {
namespace {

// A write that a driver has begun may go on past its deadline while somebody takes the bytes.
constexpr std::size_t kLargestPiece = 4096;

Win32Handle makeEvent(bool staysSet) {
    return Win32Handle(CreateEventA(nullptr, staysSet, FALSE, nullptr));
}

/// The events that the port's calls wait for.
struct Events {
    Win32Handle woken = makeEvent(false);   // until the readAvailable() that it is meant for has seen it
    Win32Handle closing = makeEvent(true);  // for good once close wants the calls in flight to end
    Win32Handle readTurn{CreateSemaphoreA(nullptr, 1, 1, nullptr)};
    Win32Handle arrival = makeEvent(true);
    Win32Handle readDone = makeEvent(true);
    Win32Handle writeDone = makeEvent(true);

    bool complete() const {
        return woken.get() != nullptr && closing.get() != nullptr && readTurn.get() != nullptr &&
               arrival.get() != nullptr && readDone.get() != nullptr && writeDone.get() != nullptr;
    }
};

/// Arrivals are told by a read of a single byte that is always under way while somebody waits; the bytes behind it are
/// fetched at once. The driver's own message of arrivals (WaitCommEvent) is not used: under Wine it comes a millisecond
/// later, and by way of failures.
class OverlappedPort : public Win32Port {
  public:
    static NativeOpening open(const char* path) {
        Win32Handle device = openDevice(path, FILE_FLAG_OVERLAPPED);
        if (device.get() == nullptr) {
            return failure();
        }
        Events events;
        if (!events.complete()) {
            return failure();
        }
        NativeOpening opened;
        opened.port = std::make_unique<OverlappedPort>(std::move(device), std::move(events));
        return opened;
    }

    OverlappedPort(Win32Handle device, Events events) : Win32Port(std::move(device)), events_(std::move(events)) {
        arrival_.hEvent = events_.arrival.get();
    }

    ~OverlappedPort() override {
        if (awaitingArrival_) {
            CancelIoEx(device(), &arrival_);
            DWORD unused = 0;
            GetOverlappedResult(device(), &arrival_, &unused, TRUE);  // the driver must have let go of our record
        }
    }

    bool applyTimeouts() override {
        COMMTIMEOUTS none{};  // all limits are ours
        return SetCommTimeouts(device(), &none) != 0 || fail(static_cast<int>(GetLastError()));
    }

    int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) override {
        return readWithGap(buffer, maxBytes, timeoutMs, [this](void* into, std::uint32_t room, Clock::Time deadline) {
            return take(into, room, deadline, false);
        });
    }

    int readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) override {
        return maxBytes == 0 ? 0 : take(buffer, maxBytes, deadline, true);
    }

    int write(const void* data, std::size_t length, Clock::Time deadline,
              const std::atomic<std::uint32_t>* stop) override {
        const char* bytes = static_cast<const char*>(data);
        OVERLAPPED operation{};
        operation.hEvent = events_.writeDone.get();
        while (length > 0) {
            const DWORD piece = static_cast<DWORD>(std::min(length, kLargestPiece));
            const BOOL done = WriteFile(device(), bytes, piece, nullptr, &operation);
            DWORD count = 0;
            if (!finish(done, operation, deadline, count, stop)) {
                return Port::kWriteFailed;
            }
            bytes += count;
            length -= count;
            if (length > 0 && millisecondsUntil(deadline) == 0) {
                return Port::kWriteFailed;
            }
        }
        return Port::kWritten;
    }

    void wake() override { SetEvent(events_.woken.get()); }
    void wakeAll() override { SetEvent(events_.closing.get()); }

  private:
    enum class Wait { kDone, kClosing, kWoken, kTimeout };

    Wait waitFor(HANDLE object, Clock::Time deadline, bool wakeable) const {
        const HANDLE watched[] = {events_.closing.get(), object, events_.woken.get()};
        switch (WaitForMultipleObjects(wakeable ? 3 : 2, watched, FALSE, millisecondsUntil(deadline))) {
            case WAIT_OBJECT_0:
                return Wait::kClosing;
            case WAIT_OBJECT_0 + 1:
                return Wait::kDone;
            case WAIT_OBJECT_0 + 2:
                return Wait::kWoken;
            default:
                return Wait::kTimeout;
        }
    }

    Wait waitUnlessStopped(HANDLE object, Clock::Time deadline, const std::atomic<std::uint32_t>* stop) const {
        if (stop == nullptr) {
            return waitFor(object, deadline, false);
        }
        while (*stop == 0) {
            const Clock::Time look = std::min(deadline, systemClock().now() + Port::kStopLook);
            if (const Wait seen = waitFor(object, look, false); seen != Wait::kTimeout || look == deadline) {
                return seen;
            }
        }
        return Wait::kTimeout;
    }

    /// Waits for an operation that was begun, and takes it back when it is not done in time. False when it failed.
    bool finish(BOOL begun, OVERLAPPED& operation, Clock::Time deadline, DWORD& count,
                const std::atomic<std::uint32_t>* stop = nullptr) const {
        if (begun == 0) {
            if (GetLastError() != ERROR_IO_PENDING) {
                return false;
            }
            if (waitUnlessStopped(operation.hEvent, deadline, stop) != Wait::kDone) {
                CancelIoEx(device(), &operation);
            }
        }
        return GetOverlappedResult(device(), &operation, &count, TRUE) != 0;
    }

    /// The bytes that are there, without waiting for any. 0 also when the port is in trouble: the next wait tells.
    DWORD readNow(void* buffer, std::uint32_t maxBytes) const {
        DWORD unused = 0;
        COMSTAT line{};
        if (ClearCommError(device(), &unused, &line) == 0 || line.cbInQue == 0 || maxBytes == 0) {
            return 0;
        }
        OVERLAPPED operation{};
        operation.hEvent = events_.readDone.get();
        const BOOL done = ReadFile(device(), buffer, std::min<DWORD>(line.cbInQue, maxBytes), nullptr, &operation);
        DWORD count = 0;
        return finish(done, operation, Port::kNever, count) ? count : 0;
    }

    /// What both ways of reading are made of: waits for bytes and takes what is there. 0 when none came by `deadline`
    /// or the wait was woken.
    int take(void* buffer, std::uint32_t maxBytes, Clock::Time deadline, bool wakeable) {
        // Whoever waits has the one read that tells of arrivals, so readers take turns.
        if (waitFor(events_.readTurn.get(), deadline, wakeable) != Wait::kDone) {
            return 0;
        }
        const int result = takeInTurn(buffer, maxBytes, deadline, wakeable);
        ReleaseSemaphore(events_.readTurn.get(), 1, nullptr);
        return result;
    }

    int takeInTurn(void* buffer, std::uint32_t maxBytes, Clock::Time deadline, bool wakeable) {
        for (;;) {
            if (!awaitingArrival_) {
                if (ReadFile(device(), &firstByte_, 1, nullptr, &arrival_) == 0 && GetLastError() != ERROR_IO_PENDING) {
                    fail(static_cast<int>(GetLastError()));
                    return Port::kReadFailed;
                }
                awaitingArrival_ = true;
            }
            if (waitFor(arrival_.hEvent, deadline, wakeable) != Wait::kDone) {
                return 0;
            }
            awaitingArrival_ = false;
            DWORD count = 0;
            const bool read = GetOverlappedResult(device(), &arrival_, &count, FALSE) != 0;
            if (!read && GetLastError() != ERROR_OPERATION_ABORTED) {
                fail(static_cast<int>(GetLastError()));
                return Port::kReadFailed;
            }
            if (read && count > 0) {
                *static_cast<char*>(buffer) = firstByte_;
                return static_cast<int>(1 + readNow(static_cast<char*>(buffer) + 1, maxBytes - 1));
            }
            // The system takes a read back when the thread that began it ends; some drivers answer early with nothing.
            if (systemClock().now() >= deadline || WaitForSingleObject(events_.closing.get(), 1) == WAIT_OBJECT_0) {
                return 0;
            }
        }
    }

    const Events events_;
    OVERLAPPED arrival_{};  // with what follows: for whoever has the turn to read
    char firstByte_ = 0;
    bool awaitingArrival_ = false;  // the driver holds the two above
};

}  // namespace

NativeOpening openOverlapped(const char* path, const char*) {
    return OverlappedPort::open(path);
}

}  // namespace kxorbeta_if
