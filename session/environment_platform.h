#pragma once

#include <string>

#include "velmora/velmora.h"

namespace velmora {

/// What the system's code says of a port that exists and did not open: VELMORA_FORBIDDEN, VELMORA_HELD or
/// VELMORA_FAILED.
velmora_status statusOfOpenError(int code);

/// What the system says of one of its codes.
std::string systemText(int code);

/// Whether two names mean the same port: a path, a link to it, a name without a folder or with the prefix for devices.
bool samePort(const std::string& a, const std::string& b);

}  // namespace velmora
