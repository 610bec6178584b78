#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/receive_buffer.h"
#include "support/stream_builder.h"

namespace bench {

inline constexpr std::size_t kReadSize = kxorbeta_if::ReceiveBuffer::kReadSize;

/// One read's worth of single-channel raw packets, one to a dongle frame, dealt round to the headsets and cut into
/// blocks of whole frames. Can be played for ever without a packet missing: count() before each time.
class PacketStream {
  public:
    enum class Cut { kWholePackets, kInsidePackets };

    /// At most `blockSize` bytes a block, which must hold a frame. With kInsidePackets every payload begins inside a
    /// packet and ends inside the headset's next one.
    PacketStream(int devices, std::size_t blockSize, Cut cut = Cut::kWholePackets);

    /// Overwrites that share of all bytes, in thousandths, at places that are the same in every run.
    void damage(unsigned perMille);

    /// Numbers the packets so that they follow those of the last time.
    void count();

    const std::vector<test::Bytes>& blocks() const { return blocks_; }
    std::size_t bytes() const { return bytes_; }
    std::size_t packets() const { return counters_.size(); }

  private:
    struct Counter {
        std::size_t block;
        std::size_t offset;
        std::size_t device;
    };

    std::vector<test::Bytes> blocks_;
    std::vector<Counter> counters_;
    std::array<std::uint8_t, 16> next_{};
    std::size_t bytes_ = 0;
};

/// Input that nobody sends in good faith, or that a broken line makes.
struct Flood {
    const char* name;
    std::string_view pattern;
    bool asPayload;  ///< the pattern fills one dongle frame's payload; otherwise it is the stream itself
    bool farMark;    ///< the last byte is a '#'
};
std::span<const Flood> floods();
test::Bytes floodBlock(const Flood& flood, std::size_t size);

}  // namespace bench
