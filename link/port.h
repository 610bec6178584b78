#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace kxorbeta_if {

/// The way to a dongle: what everything beyond the line knows of it. A serial port (SerialPort), or in tests a line in
/// memory that runs on the test's own time. Writes no log and throws nothing on the port's behalf.
///
/// Any thread may call any operation. close() may overlap a read or write of another thread: it wakes it, waits until
/// it has left, and only then gives the handle back, so that a call never touches a handle that the system has given to
/// somebody else meanwhile.
class Port {
  public:
    /// Results of open().
    enum Result : std::int8_t {
        kOpened = 1,
        kNoSuchPort = -1,
        kOpenFailed = -2,  ///< for example in use by another process
        kReadSettingsFailed = -3,
        kBadBaud = -4,
        kApplyFailed = -5,
        kTimeoutsFailed = -6,
        kBadDataBits = -7,
        kBadStopBits = -8,
        kBadParity = -9,
    };

    /// Results of reading and writing that are no number of bytes.
    static constexpr int kTimeoutNotApplied = -1;  ///< the time-out could not be applied; a closed port, for one
    static constexpr int kReadFailed = -2;
    static constexpr int kWritten = 1;
    static constexpr int kWriteFailed = -1;

    static constexpr Clock::Time kNever = Clock::kNever;

    virtual ~Port() = default;

    virtual bool isOpen() const = 0;

    /// Opens the port for this process alone and sets the line up.
    ///   path           full device path in the form \\.\COM3
    ///   baud           one of the 19 rates from 110 to 2000000 that the ports support
    ///   dataBitsIndex  0 to 4: 5, 6, 7, 8 or 16 bits (no device takes 16)
    ///   parityIndex    0 to 4: none, even, odd, mark, space
    ///   stopBitsIndex  0 to 2: 1, 1.5 or 2
    /// A failure past the opening itself (kReadSettingsFailed and on) leaves the port open; close() it. A port that is
    /// open already is closed first.
    virtual Result open(const char* path, std::uint32_t baud, int dataBitsIndex, int parityIndex,
                        int stopBitsIndex) = 0;

    /// The system's own code (errno, GetLastError) for the last open(): why the system refused the port or its
    /// settings. 0 when it did not, which includes settings that were never offered to it (kBadBaud and its like).
    /// Behind a readAvailable() that failed: the code for that, or 0.
    virtual int systemError() const = 0;

    /// Reads up to `maxBytes`. Returns when they have arrived, when 10 ms passed since the last byte, or when
    /// `timeoutMs` have passed in all: the number of bytes, 0 when none came. A line that is gone fails at once, with
    /// kTimeoutNotApplied or kReadFailed; one that merely brings nothing takes its whole time-out.
    virtual int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) = 0;

    /// Reads what is there, up to `maxBytes`, and waits for it until `deadline` if there is nothing. The number of
    /// bytes; 0 when none came by then or wake() was called; kReadFailed when the line is gone. For one thread at a
    /// time: with several, it is open which of them gets a byte or a wake().
    virtual int readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) = 0;

    /// Writes all bytes: kWritten, or kWriteFailed when that failed or was not done by `deadline`; some of them may
    /// have gone out then. A write of another thread is waited for, up to `deadline`. Once `stop`, which may be null,
    /// is not 0 any more, a write that waits for the line fails too, within kStopLook.
    virtual int write(const void* data, std::size_t length, Clock::Time deadline = kNever,
                      const std::atomic<std::uint32_t>* stop = nullptr) = 0;
    static constexpr std::chrono::milliseconds kStopLook{20};

    /// Ends the readAvailable() that is waiting on another thread, or else the next one that finds nothing.
    virtual void wake() = 0;

    /// Asks the driver of an open port to pass bytes on without collecting them first. Does nothing where that is not
    /// offered. It may last beyond close(), until the device is unplugged.
    virtual void requestLowLatency() {}

    /// Puts the line settings of an open port back as open() found them, for whoever used it before.
    virtual void restoreSettings() {}

    /// Closes the port; harmless when it is closed.
    virtual void close() = 0;
};

}  // namespace kxorbeta_if
