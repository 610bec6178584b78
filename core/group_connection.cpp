#include "core/group_connection.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <thread>

#include "core/log.h"
#include "core/orbeta_if.h"
#include "core/reply_handlers.h"
#include "core/reply_text.h"

namespace kxorbeta_if {
namespace {

constexpr std::size_t kLongestCommand = 512;
constexpr std::uint32_t kDefaultSeconds = 100;
constexpr std::uint32_t kMostSeconds = 600;

/// What the dongle has said since its last connection report.
class ReplyText {
  public:
    void append(std::string_view bytes) {
        std::copy_if(bytes.begin(), bytes.end(), std::back_inserter(text_),
                     [](unsigned char c) { return c == '\n' || (c >= 0x20 && c <= 0x7F); });
    }

    bool saysFinished() const {
        // The last line feed of what is done stays in front: the whole text is then longer than the end text.
        return holdsReply(std::string_view(text_).substr(done_ == 0 ? 0 : done_ - 1), reply::kGroupConnectionFinish);
    }

    /// The number of reports in the text. With at least one the text has served its purpose; without, it stays and the
    /// next read extends it, but its complete lines need not be looked at again.
    int collect(const ReportTargets& targets) {
        const int count = collectGroupConnections(targets, std::string_view(text_).substr(done_));
        if (count > 0) {
            text_.clear();
            done_ = 0;
        } else if (const std::size_t lastEnd = text_.rfind('\n'); lastEnd != std::string::npos) {
            done_ = lastEnd + 1;
        }
        return count;
    }

    bool empty() const { return text_.empty(); }

  private:
    std::string text_;
    std::size_t done_ = 0;  // complete lines before this hold no report
};

/// True when at least one headset was reported connected.
bool connectionThread(Context& context, const std::string& command, std::uint32_t reads) {
    // A longer one does not fit the dongle; the attempt then waits for reports all the same.
    if (command.size() <= kLongestCommand) {
        context.port.write(command.c_str(), command.size() + 1);
    }
    const ReportTargets targets{context.registry, context.callbacks};
    ReplyText text;
    int total = 0;
    for (; reads > 0; --reads) {
        std::array<char, 2048> buffer;
        const int count = context.port.read(buffer.data(), buffer.size(), context.timing.connectionReadTimeoutMs);
        if (count <= 0) {
            continue;
        }
        text.append({buffer.data(), static_cast<std::size_t>(count)});
        if (text.saysFinished()) {
            break;
        }
        total += text.collect(targets);
    }
    if (!text.empty()) {
        total += text.collect(targets);
    }
    return total > 0;
}

}  // namespace

std::string groupConnectCommand(const std::vector<ble_device>& devices) {
    std::string command = "AT+GRPCONN=";
    for (std::size_t i = 0; i < devices.size(); ++i) {
        if (i > 0) {
            command += ';';
        }
        command += devices[i].address();
        if (devices[i].option() != 0) {
            command += std::to_string(devices[i].option());
        }
    }
    return command;
}

std::uint32_t connectionReads(const Timing& timing, std::uint32_t timeoutSeconds) {
    const bool usual = timeoutSeconds == 0 || timeoutSeconds > kMostSeconds;
    return (usual ? kDefaultSeconds : timeoutSeconds) * timing.connectionReadsPerSecond;
}

bool connectGroup(Context& context, const std::vector<ble_device>& devices, std::uint32_t timeoutSeconds) {
    Flags& flags = context.flags;
    if (!context.port.isOpen() || flags.linkActive || flags.scanning || flags.connecting || flags.groupConnected) {
        return false;
    }
    flags.connecting = true;
    const std::string command = groupConnectCommand(devices);
    context.registry.clear();
    KX_LOG(verbosity::kInfo, "Group Connect: %s", command.c_str());
    bool connected = false;
    // As with a scan, a thread that cannot be had leaves the flag set and later attempts refused.
    context.runOnThread(
        [&] { connected = connectionThread(context, command, connectionReads(context.timing, timeoutSeconds)); });
    flags.connecting = false;
    if (!connected) {
        flags.groupConnected = false;
        return false;
    }
    flags.groupConnected = true;
    flags.linkActive = true;
    flags.ctlFraming = true;
    startLinkThread(context);
    for (int poll = 0; poll < context.timing.linkStartPolls && !flags.linkStarted; ++poll) {
        std::this_thread::sleep_for(context.timing.linkStartPoll);
    }
    return true;
}

}  // namespace kxorbeta_if
