#include "core/group_connection.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "base/log.h"
#include "core/orbeta_if.h"
#include "core/reply_handlers.h"
#include "core/reply_text.h"
#include "protocol/commands.h"

namespace kxorbeta_if {
namespace {

constexpr std::uint32_t kDefaultSeconds = 100;
constexpr std::uint32_t kMostSeconds = 600;

/// The text may grow to this; of a longer one the end is kept. No report and no end text is nearly as long.
constexpr std::size_t kLongestText = 4096;

constexpr int kLinkStartPolls = 100;
constexpr std::chrono::milliseconds kLinkStartPoll{10};

void appendText(std::string& text, std::string_view bytes) {
    std::copy_if(bytes.begin(), bytes.end(), std::back_inserter(text),
                 [](unsigned char c) { return c == '\n' || (c >= 0x20 && c <= 0x7F); });
}

/// Text without a report grows until it holds one. Lines that are complete never will, so they go first; their last
/// line end stays, because a text that is exactly the end text is not one that merely ends with it.
void limitText(std::string& text) {
    if (text.size() > kLongestText) {
        const std::size_t lastLine = text.find_last_of('\n');
        const std::size_t tooMuch = text.size() - kLongestText;
        text.erase(0, lastLine == std::string::npos ? tooMuch : std::max(lastLine, tooMuch));
    }
}

/// True when at least one headset was reported connected.
bool connectionThread(Context& context, const std::string& command, std::uint32_t reads) {
    // A longer one is not sent, and the attempt waits for reports all the same: required; keep.
    if (command.size() <= protocol::kLongestCommandText) {
        context.port.write(command.c_str(), command.size() + 1);
    }
    const ReportTargets targets{context.registry, context.callbacks};
    std::string text;
    int total = 0;
    for (; reads > 0; --reads) {
        std::array<char, 2048> buffer;
        const int count = context.port.read(buffer.data(), buffer.size(), context.timing.connectionReadTimeoutMs);
        if (count <= 0) {
            continue;
        }
        appendText(text, {buffer.data(), static_cast<std::size_t>(count)});
        if (holdsReply(text, reply::kGroupConnectionFinish)) {
            break;
        }
        if (const int reported = collectGroupConnections(targets, text); reported > 0) {
            total += reported;
            text.clear();
        }
        limitText(text);
    }
    total += collectGroupConnections(targets, text);
    return total > 0;
}

}  // namespace

std::string groupConnectCommand(const std::vector<ble_device>& devices) {
    std::string command(protocol::kConnectGroup);
    for (std::size_t i = 0; i < devices.size(); ++i) {
        protocol::appendGroupMember(command, i == 0, devices[i].address(), devices[i].option());
    }
    return command;
}

std::uint32_t connectionReads(const Timing& timing, std::uint32_t timeoutSeconds) {
    const bool usual = timeoutSeconds == 0 || timeoutSeconds > kMostSeconds;
    return (usual ? kDefaultSeconds : timeoutSeconds) * timing.connectionReadsPerSecond;
}

bool connectGroup(Context& context, const std::vector<ble_device>& devices, std::uint32_t timeoutSeconds) {
    Flags& flags = context.flags;
    {
        const std::lock_guard guard(context.takingThePort);
        if (!context.port.isOpen() || flags.linkActive || flags.scanning || flags.connecting || flags.groupConnected) {
            return false;
        }
        flags.connecting = true;
    }
    // A host's callback may have held up the end of the last link thread for longer than disconnecting waits, and a
    // dongle's restart holds it up for good. Two of them on one port and one set of tables must never be.
    context.linkThreads.waitUntilEnded(kLinkEndWait);
    if (context.linkThreads.living() || !context.port.isOpen()) {
        flags.connecting = false;
        return false;
    }
    const std::string command = groupConnectCommand(devices);
    context.registry.clear();
    KX_LOG(verbosity::kInfo, "Group Connect: %s", command.c_str());
    bool connected = false;
    // As with a scan, a thread that cannot be had leaves the flag set and later attempts refused. Required; keep.
    context.runOnThread(
        [&] { connected = connectionThread(context, command, connectionReads(context.timing, timeoutSeconds)); });
    {
        // A scan that looks in between would find nobody who has the port.
        const std::lock_guard guard(context.takingThePort);
        flags.connecting = false;
        flags.groupConnected = connected;
        if (!connected) {
            return false;
        }
        flags.linkActive = true;
        flags.ctlFraming = true;
    }
    startLinkThread(context);
    for (int poll = 0; poll < kLinkStartPolls && !flags.linkStarted; ++poll) {
        context.clock.sleepFor(kLinkStartPoll);
    }
    return true;
}

}  // namespace kxorbeta_if
