#pragma once

#include "core/context.h"

namespace kxorbeta_if {

/// Starts the link thread, detached; throws std::system_error when no thread can be started. While `linkActive` is set
/// it owns the context's port, writes queued commands at their pace, reads, hands reports to the reply handlers and
/// everything to the parser. It ends with the iteration in which it finds the flag clear. A restart of the dongle ends
/// it, too, and leaves the event lock taken: with an event callback installed it then never ends, without one it does.
/// Nothing is thrown on it; a callback that ends the thread unwinds it and leaves everything as a stopped link thread
/// does, without a word.
void startLinkThread(Context& context);

}  // namespace kxorbeta_if
