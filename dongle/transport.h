// The dongle's end of the line. Every call comes back in bounded time, whatever the host does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "dongle/dongle_settings.h"

namespace dongle {

/// Used by one thread at a time.
class Transport {
  public:
    Transport() = default;
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;
    virtual ~Transport() = default;

    /// The name under which a host opens the other end; for a serial port its own name, as the other end's is not
    /// known.
    virtual std::string hostPath() const = 0;
    /// Waits at most `most` for bytes of the host and returns how many it read; 0 when none came. Also waits when the
    /// line is broken or closed, so that a caller's loop does not spin.
    virtual std::size_t read(std::span<std::uint8_t> into, Time most) = 0;
    /// Gives bytes to the line without waiting for a host to read them; returns how many the line took.
    virtual std::size_t write(std::span<const std::uint8_t> bytes) = 0;
    /// False when it is certain that no host has the other end open.
    virtual bool hostPresent() = 0;
    /// Closes this end for good: the host sees its port go away.
    virtual void hangUp() = 0;

    /// What hosts that have closed their end left unread since the last call, in bytes; none of it reaches the next
    /// host. Such a departure shows in `read`, so ask behind each of its calls. Nothing when a host left and it is not
    /// known what it had read.
    virtual std::optional<std::size_t> leftUnread() { return 0; }
    /// Takes back what no host has read, and returns how many bytes that is: always the last ones that were written.
    /// For use right before `hangUp`, which would lose them uncounted. Nothing when this line cannot tell.
    virtual std::optional<std::size_t> takeBack() { return std::nullopt; }
};

/// Makes the line anew each time that the dongle is plugged in.
using LineMaker = std::function<std::unique_ptr<Transport>()>;

/// This platform can make pseudo-terminals.
bool hasPseudoTerminals();

/// A new pseudo-terminal in raw mode. What a host leaves unread when it closes its end is gone, as at a serial port;
/// only a host that opens again within the moment that it takes to notice finds the rest. Where a host has made the
/// terminal exclusive and the dongle may not open it all the same, that rest stays and cannot be counted. Throws
/// std::system_error when the system has none to give, and std::runtime_error on a platform without them.
std::unique_ptr<Transport> makePtyTransport();

/// An existing serial port at 2,000,000 baud, 8 data bits, no parity, one stop bit: a path, or on Windows a name such
/// as COM5. Throws std::system_error when it cannot be opened or set.
std::unique_ptr<Transport> makeSerialTransport(const std::string& name);

}  // namespace dongle
