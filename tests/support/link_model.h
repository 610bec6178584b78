#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/stream_framer.h"
#include "support/exact_block.h"

namespace test {

/// Feeds blocks as the link thread does with what it reads: the history of one block stands in front of the next,
/// 512 bytes of history and more are dropped, and a block that began with history passes none on.
class LinkModel {
  public:
    LinkModel(kxorbeta_if::StreamFramer& framer, kxorbeta_if::History& history) : framer_(framer), history_(history) {}

    void feed(std::span<const std::uint8_t> chunk) {
        const bool began = history_.length() > 0;
        std::vector<std::uint8_t> block;
        if (history_.length() < 512) {
            block.assign(history_.bytes().begin(), history_.bytes().end());
        }
        block.insert(block.end(), chunk.begin(), chunk.end());
        framer_.parse(ExactBlock(block).span(), history_);
        if (began) {
            history_.clear();
        }
    }

  private:
    kxorbeta_if::StreamFramer& framer_;
    kxorbeta_if::History& history_;
};

}  // namespace test
