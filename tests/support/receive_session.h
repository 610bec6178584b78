#pragma once

#include <functional>
#include <string>
#include <vector>

#include "core/frame_decoder.h"
#include "core/stream_framer.h"
#include "support/exact_block.h"
#include "support/log_capture.h"
#include "support/stream_builder.h"

namespace test {

/// Callback calls as lines of a session's trace, each with its line end. Samples that are all 0 read "zeros".
std::string rawCall(int device, int channel, const std::vector<int>& samples);
std::string batteryCall(int device, unsigned level, unsigned value);
std::string postCall(const Post& post);
std::string responseCall(int device, const Bytes& frame);

struct Packet {
    int device, channel;  // `channel` is the number of channels when there are several
    bool multi;
    int counter;
    unsigned seed;  // of the samples

    Bytes bytes() const;
    /// What a host gets and the log says when it is not the first packet: `loss` as it is logged, -1 for none.
    std::string lines(bool direct, bool merged, int expected, int loss) const;
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

    /// One block through the parser's entry, and what came of it.
    std::string parse(const Bytes& block);

    kxorbeta_if::Flags flags;
    kxorbeta_if::CallbackTable callbacks;
    kxorbeta_if::ReceiveTables tables;
    kxorbeta_if::DecoderTables decoder{callbacks, tables.packetCounters, flags};
    kxorbeta_if::StreamFramer framer{tables, callbacks, flags};
    kxorbeta_if::History history;

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
