#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/frame_decoder.h"
#include "core/stream_framer.h"
#include "support/exact_block.h"
#include "support/feed.h"
#include "support/log_capture.h"
#include "support/stream_builder.h"

namespace test {

/// Callback calls as lines of a session's trace, each with its line end. Samples that are all 0 read "zeros".
std::string rawCall(int device, int channel, const std::vector<int>& samples);
std::string batteryCall(int device, unsigned level, unsigned value);
std::string postCall(int device, int value1, int value2, int value3, int value4, const unsigned* bands);
std::string postCall(const Post& post);
std::string responseCall(int device, const Bytes& frame);

/// A raw frame of one channel, or of several when `channels` is not 0.
struct Packet {
    int device = 0;
    int channel = 0;
    int channels = 0;
    int counter = 0;
    unsigned seed = 0;  ///< of the samples

    Bytes bytes() const;
    /// The calls that hand it to a host: with `merged` one call for all channels together.
    std::string calls(bool merged = false) const;
};

/// Whether a spin lock is taken. Its only member is the lock word.
bool isHeld(const kxorbeta_if::SpinLock& lock);

/// A receive path of its own: fresh tables, every callback installed, data collection on, `ctlFraming` set. Keeps a
/// trace of log lines ("VERBOSITY TEXT") and callback calls in the order in which they come. Of two sessions that live
/// at the same time both see the log of both.
class ReceiveSession {
  public:
    explicit ReceiveSession(int verbosity = 9);
    ReceiveSession(const ReceiveSession&) = delete;
    ReceiveSession& operator=(const ReceiveSession&) = delete;

    /// The lines so far, which are then forgotten.
    std::string take();

    /// Decode straight from an exact-size copy, as headset 5 or directly; the number of bytes consumed.
    std::size_t decode(bool direct, const Bytes& bytes, int device = 5);

    /// One block through the parser's entry with `history`, and what came of it.
    std::string parse(const Bytes& block);

    /// What one read of the link thread brought, through `buffer` and its history, and what came of it.
    std::string read(std::span<const std::uint8_t> bytes);

    kxorbeta_if::Flags flags;
    kxorbeta_if::CallbackTable callbacks;
    kxorbeta_if::ReceiveTables tables;
    kxorbeta_if::DecoderTables decoder{callbacks, tables.packetCounters, flags};
    kxorbeta_if::StreamFramer framer{tables, callbacks, flags};
    kxorbeta_if::History history;
    kxorbeta_if::ReceiveBuffer buffer{flags};

    std::function<void()> onRaw;    ///< called inside the raw data callback, after the call has been noted
    std::function<void()> onEvent;  ///< likewise
    std::function<void(unsigned char* frame, int length)> onResponse;  ///< likewise, with the frame as handed over

  private:
    struct Entries;
    void note(const std::string& call);

    LogCapture log_;
    std::string trace_;
};

}  // namespace test
