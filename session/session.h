#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "link/port.h"
#include "session/command_gate.h"
#include "session/environment.h"
#include "session/outcome.h"
#include "session/receiver.h"
#include "session/record_queue.h"
#include "session/signal.h"
#include "velmora/velmora.h"

namespace velmora {

/// The end of a time-out in milliseconds; negative: never.
Clock::Time deadlineIn(std::int32_t milliseconds);

struct Settings {
    std::size_t queueCapacity = 8704;  ///< ten seconds of a full line, 230 bytes and a header for each packet
    std::chrono::milliseconds commandGap{20};
    velmora_log_function log = nullptr;
    void* logContext = nullptr;
};

/// What is behind a handle: the port, the thread that reads it, what is known of the dongle and its headsets, and the
/// records for the host. The public functions may be called from any thread, as velmora.h says.
///
/// One mutex guards all that the dongle's words and the host's calls change. The reading thread takes it once for each
/// block it has read, and nobody waits for anything while holding it. The queue has no lock.
///
/// Life cycle and reading stand in session.cpp; conversations, commands and records in session_*.cpp.
class Session : private Receiver::Listener {
  public:
    Session(const Environment& environment, const Settings& settings);
    ~Session() override;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Outcome open(const std::string& path);
    Outcome reopen(Clock::Time deadline, Signal* cancel);
    void close();

    using OnFound = std::function<void(const velmora_found&)>;
    Outcome scan(const OnFound& onFound, Clock::Time deadline, Signal* cancel);
    /// Fills in what the elements say of the result.
    Outcome connect(std::span<velmora_wanted> wanted, bool allowUnproved, Clock::Time deadline, Signal* cancel);
    Outcome drop(const std::string& address, Clock::Time deadline, Signal* cancel);
    Outcome dropAll(bool allowUnproved);

    Outcome send(int target, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts);
    Outcome request(int index, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts,
                    Clock::Time deadline, Signal* cancel, velmora_record& response);

    Outcome start(Nanoseconds* time, Nanoseconds* utc);
    Outcome stop();
    velmora_status read(velmora_record* records, std::size_t stride, std::size_t capacity, std::size_t min,
                        std::int32_t timeoutMs, Signal* cancel, std::size_t& got);

    void forEachHeadset(const std::function<void(const velmora_headset&)>& use) const;
    velmora_statistics statistics() const;
    Outcome headsetStatistics(int number, velmora_headset_statistics& statistics) const;

  private:
    class Talk;
    struct Request;

    enum class State { kOpen, kGone, kClosed };

    // What the receiver has to tell; the mutex is held.
    void conversationMoved() override { conversationMoved_.set(); }
    void responded(const velmora_record& response) override;
    void left(int index) override;
    void restarted() override;
    void said(std::string_view text) override { log("dongle: ", text); }

    Outcome openPort(const std::string& path);
    std::optional<std::string> whereItIs() const;
    Outcome openWhereItIs();
    void readUntilEnd();
    bool take(int count, Nanoseconds now);
    void lineIsGone(Nanoseconds now);

    Outcome notOpen() const;
    Outcome write(std::span<const std::uint8_t> bytes, std::string_view shown, Clock::Time deadline,
                  const Signal* cancel, Nanoseconds* when = nullptr);
    Outcome writeCommand(std::span<const std::uint8_t> bytes, Clock::Time deadline, const Signal* cancel,
                         Request* request);
    Outcome writeText(std::string_view text, Clock::Time deadline, const Signal* cancel);
    void endRequest(std::size_t index, velmora_status reason);
    void endAllWaiting(velmora_status reason);
    void log(std::string_view what, std::string_view text) const;

    const Environment environment_;
    const Settings settings_;
    RecordQueue queue_;
    CommandGate commands_;
    const std::unique_ptr<kxorbeta_if::Port> port_;

    std::mutex lifeMutex_;     // one opening or closing at a time
    std::string path_;         // where it was opened first; guarded by lifeMutex_
    velmora_port identity_{};  // what was known of the port then, empty when nothing; likewise

    mutable std::mutex mutex_;  // guards what follows
    std::condition_variable readingEnded_;
    bool reading_ = false;
    State state_ = State::kClosed;
    Receiver receiver_;
    Signal conversationMoved_;
    std::array<Request*, protocol::kHeadsets> requests_{};  // each on the stack of its call
    std::uint64_t commandCount_ = 0;

    std::atomic<velmora_status> ended_{VELMORA_OK};  // why nothing more will come into the queue
    std::atomic<bool> taking_{false};
    mutable std::mutex logMutex_;
};

}  // namespace velmora
