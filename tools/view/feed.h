// Between the thread that receives and the one that serves viewers. Receiving never waits: what finds no room is
// counted and left out, and viewers are told.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "view/messages.h"
#include "view/ring.h"

namespace velmora::view {

class Feed {
  public:
    // The receiving side.

    /// What velmora_read delivered, in order. Makes messages of the data only while somebody looks on. Want of memory
    /// costs viewers a message and never the one who receives.
    void take(std::span<const velmora_record> records) noexcept;
    void put(Message message) noexcept;
    /// The next mark that a viewer asks for, by its number in Hello.
    std::optional<std::size_t> nextMark() { return marks_.pop(); }
    /// The next text that the server has for the user.
    std::optional<std::string> nextNotice() { return notices_.pop(); }

    // The serving side.

    SharedMessage next();
    void setWatched(bool watched) { watched_.store(watched, std::memory_order_relaxed); }
    /// False when those before are still to be written: nobody makes so many by hand.
    bool requestMark(std::size_t number) { return marks_.push(number); }
    void notify(std::string text) { notices_.push(text); }

  private:
    void skip(std::uint64_t packets);

    static constexpr std::size_t kMessages = 128;  // of at most 256 packets each: some seconds of a full line
    static constexpr std::size_t kFew = 32;

    Ring<SharedMessage, kMessages> messages_;
    Ring<std::size_t, kFew> marks_;
    Ring<std::string, kFew> notices_;
    std::atomic<bool> watched_{false};
    std::uint64_t skippedMessages_ = 0;  // not told yet; the receiving side's
    std::uint64_t skippedPackets_ = 0;
};

}  // namespace velmora::view
