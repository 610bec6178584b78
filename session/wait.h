#pragma once

#include <algorithm>

#include "base/clock.h"
#include "session/outcome.h"
#include "session/signal.h"

namespace velmora {

/// Waits until `done()`, looking whenever `moved` is set and at least once an `interval`. What ended the wait
/// otherwise: VELMORA_CANCELLED, or VELMORA_TIMEOUT without a text.
template <typename Done>
Outcome waitUntil(Done done, Signal& moved, Signal* cancel, Clock::Time deadline,
                  Clock::Duration interval = Clock::Duration::max()) {
    while (!done()) {
        const Clock::Time now = kxorbeta_if::systemClock().now();
        if (cancel != nullptr && cancel->isSet()) {
            return cancelled();
        }
        if (now >= deadline) {
            return {VELMORA_TIMEOUT};
        }
        const bool soon = deadline - now > interval;
        waitForEither(moved, cancel, soon ? now + interval : deadline);
    }
    return {};
}

}  // namespace velmora
