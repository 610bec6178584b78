#pragma once

#include "core/context.h"

namespace kxorbeta_if {

/// The link thread's work: while `linkActive` is set it owns the context's port, writes queued commands at their pace,
/// reads, hands reports to the reply handlers and everything to the parser. Returns at the end of the iteration in
/// which it finds the flag clear. A restart of the dongle ends it, too, and leaves the event lock taken: with an event
/// callback installed it then never returns, without one it does. Throws nothing; a thread that ends inside a callback
/// unwinds through it and leaves everything as a stopped link thread does, without a word.
void runLinkThread(Context& context);

/// Starts that work on a detached thread. Throws std::system_error when no thread can be started.
void startLinkThread(Context& context);

}  // namespace kxorbeta_if
