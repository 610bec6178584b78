#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "link/port.h"
#include "session/outcome.h"
#include "velmora/velmora.h"

namespace velmora {

/// What of the machine a session needs: tests put their own in its place.
struct Environment {
    std::function<std::unique_ptr<kxorbeta_if::Port>()> makePort;
    /// Whether to look for who holds a port, which takes a look at every process.
    enum class Holders { kLook, kLeaveOut };
    /// Every serial port there is, with what is known of it without opening it.
    std::function<std::vector<velmora_port>(Holders)> listPorts;
};

const Environment& systemEnvironment();

/// Opens a port as a dongle wants it; why not, when it fails. The port is then closed.
Outcome openForDongle(kxorbeta_if::Port& port, const std::string& path, const Environment& environment);

}  // namespace velmora
