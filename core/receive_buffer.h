#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "core/flags.h"
#include "core/stream_framer.h"

namespace kxorbeta_if {

/// Where the link thread reads to, and what it does with what it read: the block that the parser sees is the new bytes
/// with the history of the last block in front of them.
///
/// A history of 512 bytes or more is dropped. A block that began with history passes none on; the parser finds the next
/// frame by itself. Both are required; keep. Belongs to the thread that decodes.
class ReceiveBuffer {
  public:
    static constexpr std::size_t kReadSize = 10240;
    static constexpr std::size_t kLongestHistory = 512;  ///< exclusive

    /// `flags` says whether the history goes to the log, and must outlive the buffer.
    explicit ReceiveBuffer(const Flags& flags) : flags_(flags) {}

    /// For the next read.
    std::span<std::uint8_t> room() { return std::span(area_).subspan(kLongestHistory); }

    /// The first `count` bytes of the room have been read: parses them.
    void parse(std::size_t count, StreamFramer& framer);

    const History& history() const { return history_; }
    void dropHistory() { history_.clear(); }

  private:
    const Flags& flags_;
    History history_;
    // The history's place lies directly in front of what is read, so that a frame split over two reads is one block.
    std::array<std::uint8_t, kLongestHistory + kReadSize> area_{};
};

}  // namespace kxorbeta_if
