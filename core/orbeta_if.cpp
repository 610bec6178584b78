#include "core/orbeta_if.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/log.h"
#include "core/pinned_thread.h"
#include "core/reply_handlers.h"
#include "core/reply_text.h"
#include "core/stream_framer.h"
#include "core/text.h"

namespace kxorbeta_if {
namespace {

constexpr std::size_t kReadSize = 10240;
constexpr std::size_t kLongestHistory = 512;  // exclusive
constexpr std::size_t kLongestCommand = 512;  // exclusive
constexpr std::size_t kLongestText = 2999;
constexpr unsigned kPassesBetweenCommands = 30;

class LinkThread {
  public:
    explicit LinkThread(Context& context)
        : context_(context), framer_(context.receiveTables, context.callbacks, context.flags) {}

    void run() {
        context_.callbacks.raise(Event::kLinkStarted, 0, nullptr);
        KX_LOG(verbosity::kInfo, "Main thread start");
        context_.receiveTables.deviceStreams.claim();
        context_.receiveTables.packetCounters.forgetAll();

        bool restarted = false;
        while (context_.flags.linkActive && !restarted) {
            try {
                restarted = pass();
            } catch (...) {
                // What one pass could not do for want of memory is lost; the stream goes on.
                history_.clear();
            }
            ++passes_;
        }
        if (restarted) {
            announceRestart();
        }

        context_.receiveTables.deviceStreams.release();
        context_.flags.linkStarted = false;
        context_.callbacks.raise(Event::kLinkStopped, 0, nullptr);
        KX_LOG(verbosity::kInfo, "Main thread stop");
    }

  private:
    /// True when the dongle has restarted.
    bool pass() {
        if (!context_.flags.linkStarted) {
            context_.flags.linkStarted = true;
        }
        sendNextCommand();
        const int count =
            context_.port.read(area_.data() + kLongestHistory, kReadSize, context_.timing.linkReadTimeoutMs);
        if (count < 1) {
            return false;
        }
        const auto chunk = std::span(area_).subspan(kLongestHistory, static_cast<std::size_t>(count));
        if (context_.flags.rawDump) {
            KX_LOG(verbosity::kTraffic, "REV:%s", hexText(chunk).c_str());
        }
        handleReports(asText(chunk));
        if (holdsReply(asText(chunk), reply::kBootup)) {
            return true;
        }
        parse(chunk);
        return false;
    }

    void sendNextCommand() {
        if (passes_ <= kPassesBetweenCommands) {
            return;
        }
        const auto command = context_.commandQueue.pop();
        if (!command) {
            return;
        }
        passes_ = 0;
        // The dongle takes no longer ones; an empty one is nothing to write.
        if (!command->empty() && command->size() < kLongestCommand) {
            KX_LOG(verbosity::kInfo, "Cmd: %s", hexText(*command).c_str());
            context_.port.write(command->data(), command->size());
        }
    }

    void handleReports(std::string_view chunk) {
        const bool disconnected = holdsReply(chunk, reply::kClientDisconnected);
        const bool list = holdsReply(chunk, reply::kList);
        const bool connected = holdsReply(chunk, reply::kServiceConnected);
        if (!disconnected && !list && !connected) {
            return;
        }
        const ReportTargets targets{context_.registry, context_.callbacks};
        const char* const text = printableText(chunk);
        if (disconnected) {
            handleClientDisconnected(targets, text);
        }
        if (list) {
            context_.registry.handleDeviceList(text);
        }
        if (connected) {
            handleServiceConnected(targets, text);
        }
    }

    /// The chunk's printable characters and line feeds, zero-terminated: reports may stand between binary data.
    const char* printableText(std::string_view chunk) {
        text_.fill(0);
        std::size_t length = 0;
        for (const char c : chunk) {
            if (length == kLongestText) {
                break;
            }
            if ((c >= 0x20 && c <= 0x7E) || c == '\n') {
                text_[length++] = c;
            }
        }
        return text_.data();
    }

    void parse(std::span<std::uint8_t> chunk) {
        if (history_.length() == 0) {
            framer_.parse(chunk, history_);
            return;
        }
        const auto history = history_.bytes();
        std::size_t inFront = history.size();
        if (context_.flags.rawDump) {
            KX_LOG(verbosity::kTraffic, "HIST%d:%s", history_.length(), hexText(history).c_str());
        }
        if (inFront >= kLongestHistory) {
            KX_LOG(verbosity::kWarning, "History data full");
            inFront = 0;
        }
        std::copy_n(history.begin(), inFront, area_.begin() + static_cast<std::ptrdiff_t>(kLongestHistory - inFront));
        framer_.parse(std::span(area_).subspan(kLongestHistory - inFront, inFront + chunk.size()), history_);
        // Only a block that began without history may pass a remainder on; the parser finds the next frame by itself.
        history_.clear();
    }

    /// The dongle has restarted and forgotten its headsets. The event lock is taken twice when a callback is installed,
    /// which never succeeds: the thread stops here for good and no event reaches the process any more. Hosts know a
    /// restarted dongle by exactly this silence.
    void announceRestart() {
        CallbackTable& callbacks = context_.callbacks;
        callbacks.eventLock.lock();
        if (const EventEntry entry = callbacks.event.load()) {
            callbacks.eventLock.lock();
            entry(callbacks.context.load(), static_cast<unsigned>(Event::kDongleRestarted), 0, nullptr);
            callbacks.eventLock.unlock();
        }
    }

    Context& context_;
    StreamFramer framer_;
    History history_;
    unsigned passes_ = 0;  // since the last command was taken
    // The history's place lies directly in front of what is read, so that a frame split over two reads is one block.
    std::array<std::uint8_t, kLongestHistory + kReadSize> area_{};
    std::array<char, kLongestText + 1> text_{};
};

}  // namespace

void runLinkThread(Context& context) noexcept {
    context.linkThreads.enteredOnThisThread();
    LinkThread(context).run();
    context.linkThreads.ended();
}

void startLinkThread(Context& context) {
    context.linkThreads.starting();
    try {
        startPinnedThread([&context] { runLinkThread(context); });
    } catch (...) {
        context.linkThreads.ended();
        throw;
    }
}

}  // namespace kxorbeta_if
