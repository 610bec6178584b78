#include "core/disconnection.h"

#include <chrono>
#include <string>

#include "base/log.h"
#include "protocol/commands.h"

namespace kxorbeta_if {
namespace {

constexpr int kDrainPolls = 100;
constexpr std::chrono::milliseconds kDrainPoll{100};

}  // namespace

bool disconnectDevice(Context& context, const ble_device& device) {
    if (!context.port.isOpen() || context.flags.connecting || !context.flags.linkActive) {
        return false;
    }
    std::string command(protocol::kDisconnectOne);
    command += device.address();
    command.push_back('\0');
    context.commandQueue.push({reinterpret_cast<const std::uint8_t*>(command.data()), command.size()});
    return true;
}

bool disconnectAll(Context& context) {
    Flags& flags = context.flags;
    flags.recording = false;
    if (!flags.groupConnected) {
        return true;
    }
    // Past the queue: commands still waiting follow this one to the dongle.
    context.port.write(protocol::kDisconnectAll.data(), protocol::kDisconnectAll.size());
    for (int poll = 0; poll < kDrainPolls && context.commandQueue.size() > 0; ++poll) {
        context.clock.sleepFor(kDrainPoll);
    }
    KX_LOG(verbosity::kInfo, "Devices disconnect");
    flags.linkActive = false;
    context.linkThreads.prod();
    context.linkThreads.waitUntilEnded(kLinkEndWait);
    // Last, so that no new connection begins before and the thread's last block is decoded like those before it.
    flags.groupConnected = false;
    flags.ctlFraming = false;
    return true;
}

}  // namespace kxorbeta_if
