#include "link/serial_port.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>
#include <utility>

#include "link/line_settings.h"
#include "link/serial_native.h"

namespace kxorbeta_if {
namespace {

constexpr std::array<std::uint32_t, 19> kBaudRates = {110,    300,    600,     1200,    2400,   4800,   9600,
                                                      14400,  19200,  38400,   56000,   57600,  115200, 128000,
                                                      256000, 921600, 1000000, 1500000, 2000000};
constexpr std::array kDataBits = {5, 6, 7, 8, 16};
constexpr std::array kStopBits = {LineSettings::Stop::kOne, LineSettings::Stop::kOneAndHalf, LineSettings::Stop::kTwo};
constexpr std::array kParities = {LineSettings::Parity::kNone, LineSettings::Parity::kEven, LineSettings::Parity::kOdd,
                                  LineSettings::Parity::kMark, LineSettings::Parity::kSpace};

constexpr int kNotOpen = -1;  // what reading and writing a closed port come to

/// Looks an index up in a table; false when it lies outside.
template <typename Value, std::size_t Size>
bool choose(const std::array<Value, Size>& table, int index, Value& value) {
    if (index < 0 || index >= static_cast<int>(Size)) {
        return false;
    }
    value = table[static_cast<std::size_t>(index)];
    return true;
}

SerialPort::Result checkSettings(std::uint32_t baud, int dataBitsIndex, int parityIndex, int stopBitsIndex,
                                 LineSettings& settings) {
    settings.baud = baud;
    if (std::find(kBaudRates.begin(), kBaudRates.end(), baud) == kBaudRates.end()) {
        return SerialPort::kBadBaud;
    }
    if (!choose(kDataBits, dataBitsIndex, settings.dataBits)) {
        return SerialPort::kBadDataBits;
    }
    if (!choose(kStopBits, stopBitsIndex, settings.stop)) {
        return SerialPort::kBadStopBits;
    }
    if (!choose(kParities, parityIndex, settings.parity)) {
        return SerialPort::kBadParity;
    }
    return SerialPort::kOpened;
}

SerialPort::Result setUp(serial_native::Port& port, std::uint32_t baud, int dataBitsIndex, int parityIndex,
                         int stopBitsIndex) {
    if (!serial_native::readSettings(port)) {
        return SerialPort::kReadSettingsFailed;
    }
    LineSettings settings;
    const SerialPort::Result checked = checkSettings(baud, dataBitsIndex, parityIndex, stopBitsIndex, settings);
    if (checked != SerialPort::kOpened) {
        return checked;
    }
    if (!serial_native::applySettings(port, settings)) {
        return SerialPort::kApplyFailed;
    }
    return serial_native::applyTimeouts(port) ? SerialPort::kOpened : SerialPort::kTimeoutsFailed;
}

}  // namespace

SerialPort::SerialPort(std::string deviceFolder) : deviceFolder_(std::move(deviceFolder)) {}

SerialPort::~SerialPort() {
    close();
}

bool SerialPort::isOpen() const {
    const std::lock_guard guard(mutex_);
    return handle_ != nullptr;
}

SerialPort::Result SerialPort::open(const char* path, std::uint32_t baud, int dataBitsIndex, int parityIndex,
                                    int stopBitsIndex) {
    close();
    const serial_native::OpenResult opened = serial_native::open(path, deviceFolder_.c_str());
    if (opened.port == nullptr) {
        return opened.noSuchPort ? kNoSuchPort : kOpenFailed;
    }
    const Result result = setUp(*opened.port, baud, dataBitsIndex, parityIndex, stopBitsIndex);
    // Shown to other threads only now: the link thread may be running since an earlier connection, and is not to read a
    // line whose settings are half done. Whatever the settings came to, the port counts as open.
    const std::lock_guard guard(mutex_);
    handle_ = opened.port;
    return result;
}

template <typename Call>
int SerialPort::whileInUse(Call&& call) {
    std::unique_lock lock(mutex_);
    if (handle_ == nullptr || closing_) {
        return kNotOpen;
    }
    serial_native::Port& port = *handle_;
    ++callsInFlight_;
    lock.unlock();
    const int result = call(port);
    lock.lock();
    if (--callsInFlight_ == 0 && closing_) {
        changed_.notify_all();
    }
    return result;
}

int SerialPort::read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    const int result =
        whileInUse([&](serial_native::Port& port) { return serial_native::read(port, buffer, maxBytes, timeoutMs); });
    if (result < 0) {
        std::this_thread::sleep_until(deadline);
    }
    return result;
}

int SerialPort::write(const void* data, std::size_t length) {
    return whileInUse([&](serial_native::Port& port) {
        const std::lock_guard oneAtATime(writeMutex_);
        return serial_native::write(port, data, length);
    });
}

void SerialPort::close() {
    std::unique_lock lock(mutex_);
    // Another close may be on its way; it leaves nothing to do.
    changed_.wait(lock, [&] { return !closing_; });
    if (handle_ == nullptr) {
        return;
    }
    closing_ = true;
    while (callsInFlight_ > 0) {
        serial_native::wake(*handle_);
        // Again and again: a call that has taken the handle may not have reached its wait yet.
        changed_.wait_for(lock, std::chrono::milliseconds(5), [&] { return callsInFlight_ == 0; });
    }
    serial_native::close(std::exchange(handle_, nullptr));
    closing_ = false;
    changed_.notify_all();
}

}  // namespace kxorbeta_if
