#include "core/orbeta_if.h"

#include <chrono>
#include <cstdint>

#include "base/contained.h"
#include "base/log.h"
#include "base/on_exit.h"
#include "base/pinned_thread.h"
#include "base/text.h"
#include "core/receive_buffer.h"
#include "core/report_router.h"
#include "core/stream_framer.h"

namespace kxorbeta_if {
namespace {

constexpr std::size_t kLongestCommand = 512;  // exclusive
constexpr unsigned kIterationsBetweenCommands = 30;

class LinkThread {
  public:
    explicit LinkThread(Context& context)
        : context_(context),
          framer_(context.receiveTables, context.callbacks, context.flags),
          buffer_(context.flags),
          reports_({context.registry, context.callbacks}) {}

    void run() {
        context_.callbacks.raise(Event::kLinkStarted, 0, nullptr);
        KX_LOG(verbosity::kInfo, "Main thread start");
        decode();
        context_.callbacks.raise(Event::kLinkStopped, 0, nullptr);
        KX_LOG(verbosity::kInfo, "Main thread stop");
    }

  private:
    /// The thread's loop. It leaves tables and flag as a stopped thread does, also when the thread ends inside a host's
    /// callback.
    void decode() {
        context_.receiveTables.deviceStreams.claim();
        const OnExit stopped([&] {
            context_.receiveTables.deviceStreams.release();
            context_.flags.linkStarted = false;
        });
        context_.receiveTables.packetCounters.forgetAll();
        bool restarted = false;
        while (context_.flags.linkActive && !restarted) {
            // What one iteration could not do for want of memory is lost; the stream goes on.
            restarted = contained([&] { return iterate(); },
                                  [&] {
                                      buffer_.dropHistory();
                                      return false;
                                  });
            ++iterations_;
        }
        if (restarted) {
            announceRestart();
        }
    }

    /// True when the dongle has restarted.
    bool iterate() {
        if (!context_.flags.linkStarted) {
            context_.flags.linkStarted = true;
        }
        sendNextCommand();
        const std::uint32_t timeoutMs = context_.timing.linkReadTimeoutMs;
        const int count = context_.port.read(buffer_.room().data(), ReceiveBuffer::kReadSize, timeoutMs);
        if (count < 0) {
            // The line is gone, and the thread lives on: it must not burn a core, and commands keep their pace.
            context_.linkThreads.pause(std::chrono::milliseconds(timeoutMs));
        }
        if (count < 1) {
            return false;
        }
        const auto chunk = buffer_.room().first(static_cast<std::size_t>(count));
        if (context_.flags.rawDump) {
            KX_LOG(verbosity::kTraffic, "REV:%s", hexText(chunk).c_str());
        }
        if (reports_.route(asText(chunk))) {
            return true;
        }
        buffer_.parse(chunk.size(), framer_);
        return false;
    }

    void sendNextCommand() {
        if (iterations_ <= kIterationsBetweenCommands) {
            return;
        }
        const auto command = context_.commandQueue.pop();
        if (!command) {
            return;
        }
        iterations_ = 0;
        // A longer one is dropped: required; keep. An empty one is nothing to write.
        if (!command->empty() && command->size() < kLongestCommand) {
            KX_LOG(verbosity::kInfo, "Cmd: %s", hexText(*command).c_str());
            context_.port.write(command->data(), command->size());
        }
    }

    /// The dongle has restarted. The event lock is taken twice when a callback is installed,
    /// which never succeeds: the thread stops here for good and no event reaches the process any more. Required; keep.
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
    ReceiveBuffer buffer_;
    ReportRouter reports_;
    unsigned iterations_ = 0;  // since the last command was taken
};

void runLinkThread(Context& context) {
    context.linkThreads.enteredOnThisThread();
    Clock& clock = context.clock;  // the context may go once the thread is counted out
    const OnExit countedOut([&] {
        context.linkThreads.ended();
        clock.threadEnding();
    });
    LinkThread(context).run();
}

}  // namespace

void startLinkThread(Context& context) {
    context.linkThreads.starting();
    context.clock.threadStarting();
    try {
        startPinnedThread([&context] { runLinkThread(context); });
    } catch (...) {
        context.linkThreads.ended();
        context.clock.threadEnding();
        throw;
    }
}

}  // namespace kxorbeta_if
