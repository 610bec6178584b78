#pragma once

#include <cstdint>

#include "link/line_settings.h"

/// What a platform does for SerialPort; one source file for each platform. No function here takes a lock or throws
/// anything but want of memory.
namespace kxorbeta_if::serial_native {

struct Port;  ///< an open port of the platform

struct OpenResult {
    Port* port = nullptr;     ///< owned by the caller; null when opening failed
    bool noSuchPort = false;  ///< it failed because there is no such port
};

OpenResult open(const char* path, const char* deviceFolder);

bool readSettings(Port& port);                                 ///< remembers the current settings for applySettings
bool applySettings(Port& port, const LineSettings& settings);  ///< changes these and keeps all others
bool applyTimeouts(Port& port);

/// SerialPort::read and write without the lifecycle. A failing read may return at once. Both return early, failing or
/// empty, after wake().
int read(Port& port, void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs);
int write(Port& port, const void* data, std::size_t length);

/// Makes calls in flight on other threads return soon. Once woken, a port is only good for closing.
void wake(Port& port);

void close(Port* port);

}  // namespace kxorbeta_if::serial_native
