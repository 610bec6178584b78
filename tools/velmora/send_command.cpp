#include <VelmoraSDK.h>

#include <iostream>
#include <thread>

#include "velmora/commands.h"
#include "velmora/failure.h"
#include "velmora/headset_command.h"
#include "velmora/stream_tap.h"
#include "velmora/terminal.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;

// A queued command leaves after some 31 reads of the port, 20 ms each on a quiet line; the rest is for a busy machine.
constexpr double kLeavingSeconds = 1.5;

void queue(const SendOptions& options) {
    if (options.payload.empty()) {
        if (SDK_SendCommand(options.target, options.command) == 0)
            throw Failure(kExitNotConnected, seeLog("the command was refused, because no headset is connected"));
        return;
    }
    // The result of this call is 0 whatever happens; the payload's length, the one reason to refuse, was checked.
    auto payload = options.payload;
    SDK_SendCommandWithPayload(options.target, options.command, payload.data(),
                               static_cast<unsigned char>(payload.size()));
}

/// Returns when the command must have left: the time is over and data after it shows that the link is alive.
void waitUntilSent() {
    for (;;) {
        std::this_thread::sleep_for(50ms);
        if (stopRequests() > 0)
            throw Failure(kExitInterrupted, "interrupted; the command may or may not have left");
        const auto look = StreamTap::instance().look();
        if (look.lastDataSeconds >= kLeavingSeconds)
            return;
        if (look.silentSeconds >= kSilenceSeconds)
            throw Failure(kExitNoData, (look.anyData ? "no data any more" : "no data has come") +
                                           std::string(", so the command may or may not have left. ") + silenceText());
    }
}

}  // namespace

void sendCommand(Session& session, const SendOptions& options) {
    for (const std::string& warning : commandWarnings(options.target, options.payload.size()))
        std::cerr << "velmora: warning: " << warning << "\n";
    const auto index = session.connect(options.choice);
    const auto target = targetSent(options.target);
    if (index && target != 0 && target != *index)
        std::cerr << "velmora: warning: the connected headset is device " << *index << ", not " << target << "\n";
    StreamTap::instance().begin(nullptr);
    queue(options);
    waitUntilSent();
    StreamTap::instance().end();
    std::cout << "the command went to the dongle; whether the headset took it is not told\n";
}

}  // namespace velmora
