#pragma once

#include <functional>

namespace kxorbeta_if {

/// Starts a detached thread that keeps this library loaded for as long as it runs: a host that unloads the library
/// must not pull the code from under it. Throws std::system_error when no thread can be started. `work` must not throw.
void startPinnedThread(std::function<void()> work);

}  // namespace kxorbeta_if
