#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "link/native_port.h"
#include "link/port.h"

namespace kxorbeta_if {

/// A serial port of this machine.
class SerialPort : public Port {
  public:
    static constexpr const char* kDeviceFolder = "/dev";

    /// `deviceFolder`: where device files lie; only Linux has use for it.
    /// `opener`: which of the platform's kinds of port this is, openSynchronous() or openOverlapped().
    explicit SerialPort(std::string deviceFolder = kDeviceFolder, NativeOpener opener = openSynchronous);
    ~SerialPort() override;
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    bool isOpen() const override;
    Result open(const char* path, std::uint32_t baud, int dataBitsIndex, int parityIndex, int stopBitsIndex) override;
    int systemError() const override;
    int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) override;
    int readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) override;
    int write(const void* data, std::size_t length, Clock::Time deadline = kNever,
              const std::atomic<std::uint32_t>* stop = nullptr) override;
    void wake() override;
    void requestLowLatency() override;
    void restoreSettings() override;
    void close() override;

  private:
    class CallInFlight;
    class WriteTurn;
    class Closing;

    bool rest(Clock::Time until);
    void closeHandle();

    const std::string deviceFolder_;
    const NativeOpener opener_;

    std::mutex changeMutex_;  // one opening or closing at a time

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable changed_;
    std::unique_ptr<NativePort> handle_;
    int callsInFlight_ = 0;
    bool closing_ = false;
    bool writing_ = false;  // one write at a time, so that two commands never mix
    int systemError_ = 0;
};

}  // namespace kxorbeta_if
