// A link to the dongle's terminal where hardware would appear.
#pragma once

#include <memory>
#include <string>

#include "dongle/transport.h"

namespace dongle {

class PortLink {
  public:
    /// Puts a symbolic link to `target` at `path`. Takes the place of a link that an ended dongle has left (one to a
    /// pseudo-terminal that is gone, or is now ours) and of nothing else. Throws std::runtime_error with the reason.
    PortLink(std::string path, std::string target);
    /// Removes the link, when it is still this one.
    ~PortLink();
    PortLink(const PortLink&) = delete;
    PortLink& operator=(const PortLink&) = delete;

  private:
    std::string path_;
    std::string target_;
};

/// A new pseudo-terminal under a name of its own, as hardware has one: the link is there exactly as long as the
/// terminal, so that a host that opens the name never meets a stranger's terminal. Throws what makePtyTransport() and
/// PortLink throw.
std::unique_ptr<Transport> makeLinkedTerminal(const std::string& link);

}  // namespace dongle
