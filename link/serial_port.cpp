#include "link/serial_port.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "link/line_settings.h"

namespace kxorbeta_if {
namespace {

constexpr std::array<std::uint32_t, 19> kBaudRates = {110,    300,    600,     1200,    2400,   4800,   9600,
                                                      14400,  19200,  38400,   56000,   57600,  115200, 128000,
                                                      256000, 921600, 1000000, 1500000, 2000000};
constexpr std::array kDataBits = {5, 6, 7, 8, 16};
constexpr std::array kStopBits = {LineSettings::Stop::kOne, LineSettings::Stop::kOneAndHalf, LineSettings::Stop::kTwo};
constexpr std::array kParities = {LineSettings::Parity::kNone, LineSettings::Parity::kEven, LineSettings::Parity::kOdd,
                                  LineSettings::Parity::kMark, LineSettings::Parity::kSpace};

constexpr std::chrono::milliseconds kEarlyAnswerPause{10};

/// Looks an index up in a table; false when it lies outside.
template <typename Value, std::size_t Size>
bool choose(const std::array<Value, Size>& table, int index, Value& value) {
    if (index < 0 || index >= static_cast<int>(Size)) {
        return false;
    }
    value = table[static_cast<std::size_t>(index)];
    return true;
}

Port::Result checkSettings(std::uint32_t baud, int dataBitsIndex, int parityIndex, int stopBitsIndex,
                           LineSettings& settings) {
    settings.baud = baud;
    if (std::find(kBaudRates.begin(), kBaudRates.end(), baud) == kBaudRates.end()) {
        return Port::kBadBaud;
    }
    if (!choose(kDataBits, dataBitsIndex, settings.dataBits)) {
        return Port::kBadDataBits;
    }
    if (!choose(kStopBits, stopBitsIndex, settings.stop)) {
        return Port::kBadStopBits;
    }
    if (!choose(kParities, parityIndex, settings.parity)) {
        return Port::kBadParity;
    }
    return Port::kOpened;
}

Port::Result setUp(NativePort& port, std::uint32_t baud, int dataBitsIndex, int parityIndex, int stopBitsIndex) {
    if (!port.readSettings()) {
        return Port::kReadSettingsFailed;
    }
    LineSettings settings;
    const Port::Result checked = checkSettings(baud, dataBitsIndex, parityIndex, stopBitsIndex, settings);
    if (checked != Port::kOpened) {
        return checked;
    }
    if (!port.applySettings(settings)) {
        return Port::kApplyFailed;
    }
    return port.applyTimeouts() ? Port::kOpened : Port::kTimeoutsFailed;
}

}  // namespace

/// A call of one thread on the open port: the port is not given back while one lives, however it ends.
class SerialPort::CallInFlight {
  public:
    explicit CallInFlight(SerialPort& port) : port_(port) {
        const std::lock_guard guard(port_.mutex_);
        if (!port_.closing_ && port_.handle_ != nullptr) {
            handle_ = port_.handle_.get();
            ++port_.callsInFlight_;
        }
    }
    ~CallInFlight() {
        if (handle_ != nullptr) {
            const std::lock_guard guard(port_.mutex_);
            if (--port_.callsInFlight_ == 0) {
                port_.changed_.notify_all();
            }
        }
    }
    CallInFlight(const CallInFlight&) = delete;
    CallInFlight& operator=(const CallInFlight&) = delete;

    NativePort* handle() const { return handle_; }  ///< null when the port is not open

  private:
    SerialPort& port_;
    NativePort* handle_ = nullptr;
};

/// The right to write, of one call in flight at a time.
class SerialPort::WriteTurn {
  public:
    WriteTurn(SerialPort& port, Clock::Time deadline) : port_(port) {
        const auto decided = [&] { return !port_.writing_ || port_.closing_; };
        std::unique_lock lock(port_.mutex_);
        systemClock().waitFor(port_.changed_, lock, deadline, decided);
        mine_ = !port_.writing_ && !port_.closing_;
        port_.writing_ |= mine_;
    }
    ~WriteTurn() {
        if (mine_) {
            const std::lock_guard guard(port_.mutex_);
            port_.writing_ = false;
            port_.changed_.notify_all();
        }
    }
    WriteTurn(const WriteTurn&) = delete;
    WriteTurn& operator=(const WriteTurn&) = delete;

    bool mine() const { return mine_; }

  private:
    SerialPort& port_;
    bool mine_ = false;
};

/// While one lives, no new call takes the handle. Made and destroyed under the port's mutex.
class SerialPort::Closing {
  public:
    explicit Closing(SerialPort& port) : port_(port) { port_.closing_ = true; }
    ~Closing() { port_.closing_ = false; }
    Closing(const Closing&) = delete;
    Closing& operator=(const Closing&) = delete;

  private:
    SerialPort& port_;
};

SerialPort::SerialPort(std::string deviceFolder, NativeOpener opener)
    : deviceFolder_(std::move(deviceFolder)), opener_(opener) {}

SerialPort::~SerialPort() {
    SerialPort::close();
}

bool SerialPort::isOpen() const {
    const std::lock_guard guard(mutex_);
    return handle_ != nullptr;
}

int SerialPort::systemError() const {
    const std::lock_guard guard(mutex_);
    return systemError_;
}

Port::Result SerialPort::open(const char* path, std::uint32_t baud, int dataBitsIndex, int parityIndex,
                              int stopBitsIndex) {
    const std::lock_guard oneChangeAtATime(changeMutex_);
    closeHandle();
    NativeOpening opened = opener_(path, deviceFolder_.c_str());
    Result result = opened.noSuchPort ? kNoSuchPort : kOpenFailed;
    int systemError = opened.systemError;
    if (opened.port != nullptr) {
        result = setUp(*opened.port, baud, dataBitsIndex, parityIndex, stopBitsIndex);
        systemError = opened.port->systemError();
    }
    // Shown to other threads only now: the link thread may be running since an earlier connection, and is not to read a
    // line whose settings are half done. Whatever the settings came to, the port counts as open.
    const std::lock_guard guard(mutex_);
    handle_ = std::move(opened.port);
    systemError_ = systemError;
    return result;
}

int SerialPort::read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) {
    const Clock::Time deadline = systemClock().now() + std::chrono::milliseconds(timeoutMs);
    const CallInFlight call(*this);
    if (call.handle() == nullptr) {
        return kTimeoutNotApplied;
    }
    int result = call.handle()->read(buffer, maxBytes, timeoutMs);
    // Some drivers answer early with nothing. They are asked again, at a pace that costs no processor time.
    while (result == 0 && maxBytes > 0 && rest(std::min(deadline, systemClock().now() + kEarlyAnswerPause))) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - systemClock().now()).count();
        if (left <= 0) {
            break;
        }
        result = call.handle()->read(buffer, maxBytes, static_cast<std::uint32_t>(left));
    }
    return result;
}

int SerialPort::readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) {
    const CallInFlight call(*this);
    if (call.handle() == nullptr) {
        return kReadFailed;
    }
    const int result = call.handle()->readAvailable(buffer, maxBytes, deadline);
    if (result == kReadFailed) {
        const std::lock_guard guard(mutex_);
        systemError_ = call.handle()->systemError();
    }
    return result;
}

int SerialPort::write(const void* data, std::size_t length, Clock::Time deadline,
                      const std::atomic<std::uint32_t>* stop) {
    const CallInFlight call(*this);
    if (call.handle() == nullptr) {
        return kWriteFailed;
    }
    const WriteTurn turn(*this, deadline);
    return turn.mine() ? call.handle()->write(data, length, deadline, stop) : kWriteFailed;
}

void SerialPort::wake() {
    const CallInFlight call(*this);
    if (call.handle() != nullptr) {
        call.handle()->wake();
    }
}

void SerialPort::requestLowLatency() {
    const CallInFlight call(*this);
    if (call.handle() != nullptr) {
        call.handle()->requestLowLatency();
    }
}

void SerialPort::restoreSettings() {
    const CallInFlight call(*this);
    if (call.handle() != nullptr) {
        call.handle()->restoreSettings();
    }
}

void SerialPort::close() {
    const std::lock_guard oneChangeAtATime(changeMutex_);
    closeHandle();
}

/// False when the port is being closed meanwhile.
bool SerialPort::rest(Clock::Time until) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_until(lock, until, [&] { return closing_; });
}

void SerialPort::closeHandle() {
    std::unique_ptr<NativePort> closed;  // goes without the mutex: it may wait for bytes on their way out
    std::unique_lock lock(mutex_);
    if (handle_ == nullptr) {
        return;
    }
    const Closing closing(*this);
    while (callsInFlight_ > 0) {
        handle_->wakeAll();
        // Again and again: a call that has taken the handle may not have reached its wait yet.
        changed_.wait_for(lock, std::chrono::milliseconds(5), [&] { return callsInFlight_ == 0; });
    }
    closed = std::move(handle_);
}

}  // namespace kxorbeta_if
