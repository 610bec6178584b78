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

/// What the dongle has said since its last connection report, as far as it still matters: text that no later read can
/// turn into a report or into the end text is dropped, so that a line without an end costs no more than another.
class ReplyText {
  public:
    void append(std::string_view bytes) {
        std::copy_if(bytes.begin(), bytes.end(), std::back_inserter(text_),
                     [](unsigned char c) { return c == '\n' || (c >= 0x20 && c <= 0x7F); });
    }

    bool saysFinished() const {
        // The text may be exactly the end text only if nothing stood in front of it.
        return holdsReply(text_, reply::kGroupConnectionFinish) &&
               (!shortened_ || text_ != reply::kGroupConnectionFinish);
    }

    /// The number of reports in the text. With at least one the text has served its purpose; without, what may still
    /// become one stays for the next read to extend.
    int collect(const ReportTargets& targets) {
        if (lineIsSettled_ && !dropSettledLine()) {
            return 0;
        }
        const int count = collectGroupConnections(targets, text_);
        if (count > 0) {
            text_.clear();
            shortened_ = false;
        } else {
            dropWhatIsSettled();
        }
        return count;
    }

    bool empty() const { return text_.empty(); }

  private:
    /// False when the line goes on.
    bool dropSettledLine() {
        const std::size_t end = text_.find('\n');
        if (end == std::string::npos) {
            keepTail();
            return false;
        }
        dropFront(end + 1);
        lineIsSettled_ = false;
        return true;
    }

    void dropWhatIsSettled() {
        if (const std::size_t end = text_.rfind('\n'); end != std::string::npos) {
            dropFront(end + 1);
        }
        const std::size_t marker = text_.find(reply::kServiceConnected);
        if (marker == std::string::npos) {
            keepTail();
            return;
        }
        const std::size_t behind = marker + reply::kServiceConnected.size();
        if (text_.find_first_not_of(' ', behind) == std::string::npos) {
            // An address may still follow, after however many spaces.
            text_.resize(std::min(text_.size(), behind + 1));
            dropFront(marker);
        } else {
            lineIsSettled_ = true;  // no address, and a line's first marker decides
            keepTail();
        }
    }

    /// Keeps what may be the beginning of a marker or of the end text, or all of the latter.
    void keepTail() {
        constexpr std::size_t longest = std::max(reply::kServiceConnected.size(), reply::kGroupConnectionFinish.size());
        if (text_.size() > longest) {
            dropFront(text_.size() - longest);
        }
    }

    void dropFront(std::size_t count) {
        text_.erase(0, count);
        shortened_ = shortened_ || count > 0;
    }

    std::string text_;
    bool shortened_ = false;      // the text has lost its beginning
    bool lineIsSettled_ = false;  // the line that the text begins with is no report, whatever follows
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
    // A host's callback may have held up the end of the last link thread for longer than disconnecting waits, and a
    // dongle's restart holds it up for good. Two of them on one port and one set of tables must never be.
    context.linkThreads.waitUntilEnded(context.timing.linkEndWait);
    if (context.linkThreads.living() || flags.connecting.exchange(true)) {
        return false;
    }
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
