#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/clock.h"
#include "link/line_settings.h"

namespace kxorbeta_if {

/// An open port as the platform knows it: what a platform does for SerialPort. Destroying it closes it, which may wait
/// for bytes on their way out. Takes no lock that outlasts a call and throws nothing but want of memory.
///
/// Reading and writing are as in Port and may overlap, reads also one another; there is one write at a time. All of
/// them return soon, failing or empty, once wakeAll() was called.
class NativePort {
  public:
    NativePort() = default;
    NativePort(const NativePort&) = delete;
    NativePort& operator=(const NativePort&) = delete;
    virtual ~NativePort() = default;

    virtual bool readSettings() = 0;                               ///< remembers them for applySettings()
    virtual bool applySettings(const LineSettings& settings) = 0;  ///< changes these and keeps all others
    virtual bool applyTimeouts() = 0;

    /// The system's code for that one of these three, or readAvailable(), that failed; 0 when none did.
    int systemError() const { return systemError_; }

    /// May return early, with 0, where a driver does.
    virtual int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) = 0;
    virtual int readAvailable(void* buffer, std::uint32_t maxBytes, Clock::Time deadline) = 0;
    virtual int write(const void* data, std::size_t length, Clock::Time deadline,
                      const std::atomic<std::uint32_t>* stop) = 0;

    virtual void wake() = 0;     ///< the readAvailable() that waits, or else the next one that would
    virtual void wakeAll() = 0;  ///< every call in flight and to come; the port is then only good for closing

    virtual void requestLowLatency() {}
    virtual void restoreSettings() {}  ///< puts back what readSettings() found

  protected:
    bool fail(int systemError) {
        systemError_ = systemError;
        return false;
    }

  private:
    std::atomic<int> systemError_{0};  // reads may overlap
};

struct NativeOpening {
    std::unique_ptr<NativePort> port;  ///< null when opening failed
    int systemError = 0;               ///< then: the system's code for it
    bool noSuchPort = false;           ///< then: because there is no such port
};

/// `path` as for Port::open().
using NativeOpener = NativeOpening (*)(const char* path, const char* deviceFolder);

/// The two kinds of port there are on Windows; on Linux both are the one that there is.
///
/// Synchronous: calls wait inside the driver, with the driver's own time-outs. readAvailable() looks every millisecond.
/// Where the driver cannot be asked to give up (Wine), closing waits for a read up to 50 ms, and for a write until the
/// line has taken it. Writes do not look at `stop`.
NativeOpening openSynchronous(const char* path, const char* deviceFolder);

/// Overlapped: the driver tells when bytes arrive, and every wait ends at once when it is woken.
NativeOpening openOverlapped(const char* path, const char* deviceFolder);

}  // namespace kxorbeta_if
