// What one viewer has still to be sent. Bounded: a viewer that reads slowly is left out of batches, and told how many.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "view/messages.h"

namespace velmora::view {

class Outbox {
  public:
    /// Rare messages still find room when batches no longer do.
    static constexpr std::size_t kMostBytes = 512 * 1024;  // some seconds of a full line
    static constexpr std::size_t kMostBytesOfBatches = kMostBytes * 3 / 4;

    void put(const SharedMessage& message) {
        const bool batch = message->kind == Kind::Samples || message->kind == Kind::Processed;
        const std::size_t most = batch ? kMostBytesOfBatches : kMostBytes;
        if (bytes_ + message->bytes.size() > most) {
            ++skippedMessages_;
            skippedPackets_ += message->packets;
            return;
        }
        tellSkipped();
        push(message);
    }

    bool empty() const { return messages_.empty() && skippedMessages_ == 0; }

    /// The next one; there is one.
    SharedMessage take() {
        tellSkipped();
        SharedMessage message = std::move(messages_.front());
        messages_.pop_front();
        bytes_ -= message->bytes.size();
        return message;
    }

  private:
    void tellSkipped() {
        // Behind what was taken in time, so that the viewer learns it where it happened.
        if (skippedMessages_ > 0) {
            push(std::make_shared<const Message>(skippedMessage(skippedMessages_, skippedPackets_)));
            skippedMessages_ = skippedPackets_ = 0;
        }
    }
    void push(SharedMessage message) {
        messages_.push_back(std::move(message));
        bytes_ += messages_.back()->bytes.size();
    }

    std::deque<SharedMessage> messages_;
    std::size_t bytes_ = 0;
    std::uint64_t skippedMessages_ = 0;
    std::uint64_t skippedPackets_ = 0;
};

}  // namespace velmora::view
