#pragma once

#include "velmora/velmora.h"

namespace velmora {

/// What the system's code says of a port that exists and did not open: VELMORA_FORBIDDEN, VELMORA_HELD or
/// VELMORA_FAILED.
velmora_status statusOfOpenError(int code);

}  // namespace velmora
