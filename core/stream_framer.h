#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/callback_table.h"
#include "core/flags.h"
#include "core/receive_tables.h"

namespace kxorbeta_if {

/// Bytes that a block left unparsed and that belong in front of the next one.
class History {
  public:
    int length() const noexcept { return static_cast<int>(bytes_.size()); }
    std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }
    void keep(std::span<const std::uint8_t> rest) { bytes_.assign(rest.begin(), rest.end()); }
    void clear() noexcept { bytes_.clear(); }

  private:
    std::vector<std::uint8_t> bytes_;  // takes any remainder: an incomplete frame is kept whole
};

/// Cuts the dongle's data frames out of blocks of the byte stream and decodes their payloads.
///
/// A frame is "AT+DAT", the headset's index in decimal, ':', the payload's length in decimal, '#', the payload.
/// Whatever is not a frame is skipped byte by byte; an incomplete frame at the end of a block goes to the history.
/// Work is linear in the length of the block, whatever it holds.
///
/// Not thread-safe; belongs to the thread that decodes, on which the callbacks are called and which has claimed the
/// tables' byte queues. A block that is used up to its last byte leaves the history untouched.
class StreamFramer {
  public:
    StreamFramer(ReceiveTables& tables, CallbackTable& callbacks, const Flags& flags)
        : tables_(tables), callbacks_(callbacks), flags_(flags) {}

    /// Parses one block: with `ctlFraming` set one of the dongle's envelopes, else one of bare headset frames. An empty
    /// block clears the history.
    void parse(std::span<std::uint8_t> block, History& history);

  private:
    void parseFramed(std::span<const std::uint8_t> block, History& history);
    void parseDirect(std::span<std::uint8_t> block, History& history);

    ReceiveTables& tables_;
    CallbackTable& callbacks_;
    const Flags& flags_;
};

}  // namespace kxorbeta_if
