#pragma once

#include "core/context.h"

namespace kxorbeta_if {

/// The link thread's work: while `linkActive` is set it owns the context's port, writes queued commands at their pace,
/// reads, hands reports to the reply handlers and everything to the parser. Returns at the end of the pass in which it
/// finds the flag clear, or never, when the dongle restarts while an event callback is installed. Throws nothing.
void runLinkThread(Context& context) noexcept;

/// Starts that work on a detached thread. Throws std::system_error when no thread can be started.
void startLinkThread(Context& context);

}  // namespace kxorbeta_if
