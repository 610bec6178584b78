#pragma once

#include <vector>

#include "session/environment.h"
#include "session/outcome.h"
#include "session/signal.h"
#include "velmora/velmora.h"

namespace velmora {

/// Pings ports, all at the same time, and fills in what velmora_find tells of each. Leaves every port as it was.
///   allPorts  ping those too that belong to no USB device
Outcome findDongles(const Environment& environment, bool allPorts, Signal* cancel, std::vector<velmora_port>& ports);

}  // namespace velmora
