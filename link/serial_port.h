#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

namespace kxorbeta_if {

namespace serial_native {
struct Port;
}

/// One serial port with blocking reads and writes. Writes no log and throws nothing on the port's behalf.
///
/// Any thread may call any operation. close() and destruction may overlap a read or write of another thread: they wake
/// it, wait until it has left, and only then give the handle back, so that a call never touches a handle that the
/// system has given to somebody else meanwhile.
class SerialPort {
  public:
    static constexpr const char* kDeviceFolder = "/dev";

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

    /// `deviceFolder`: where device files lie; only ports of POSIX systems have use for it.
    explicit SerialPort(std::string deviceFolder = kDeviceFolder);
    ~SerialPort();
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    bool isOpen() const;

    /// Opens the port for this process alone and sets the line up.
    ///   path           full device path in the form \\.\COM3
    ///   baud           one of the 19 rates from 110 to 2000000 that the ports support
    ///   dataBitsIndex  0 to 4: 5, 6, 7, 8 or 16 bits (no device takes 16)
    ///   parityIndex    0 to 4: none, even, odd, mark, space
    ///   stopBitsIndex  0 to 2: 1, 1.5 or 2
    /// A failure past the opening itself (kReadSettingsFailed and on) leaves the port open; close() it. A port that is
    /// open already is closed first.
    Result open(const char* path, std::uint32_t baud, int dataBitsIndex, int parityIndex, int stopBitsIndex);

    /// Reads up to `maxBytes`. Returns when they have arrived, when 10 ms passed since the last byte, or when
    /// `timeoutMs` have passed in all: the number of bytes, 0 when none came; -1 when the time-out could not be applied
    /// (a closed port, for one), -2 when reading failed. A failing read takes its whole time-out, so that a caller that
    /// tries again for ever never burns a core.
    int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs);

    /// Writes all bytes, however long the device takes: 1, or -1 when that failed.
    int write(const void* data, std::size_t length);

    /// Closes the port; harmless when it is closed.
    void close();

  private:
    template <typename Call>
    int whileInUse(Call&& call);

    const std::string deviceFolder_;

    mutable std::mutex mutex_;  // guards the members up to `closing_`
    std::condition_variable changed_;
    serial_native::Port* handle_ = nullptr;
    int callsInFlight_ = 0;
    bool closing_ = false;

    std::mutex writeMutex_;  // one write at a time, so that two commands never mix
};

}  // namespace kxorbeta_if
