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

/// Callback calls as text, as they stand in a session's trace.
std::string rawCall(int device, int channel, const std::vector<int>& samples);
std::string batteryCall(int device, unsigned level, unsigned value);
std::string postCall(const Post& post);
std::string responseCall(int device, const Bytes& frame);

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

    /// The trace so far, which is then forgotten.
    std::vector<std::string> take();

    /// Decode straight from an exact-size copy; the number of bytes consumed.
    std::size_t decodeDevice(int device, const Bytes& bytes);
    std::size_t decodeDirect(const Bytes& bytes);

    /// One block through the parser's entry.
    void parse(const Bytes& block) { framer.parse(ExactBlock(block).span(), history); }

    kxorbeta_if::Flags flags;
    kxorbeta_if::CallbackTable callbacks;
    kxorbeta_if::ReceiveTables tables;
    kxorbeta_if::DecoderTables decoder{callbacks, tables.packetCounters, flags};
    kxorbeta_if::StreamFramer framer{tables, callbacks, flags};
    kxorbeta_if::History history;

    /// Called inside each callback, after the call has been noted.
    std::function<void()> onCall;
    /// Called inside the response callback with the frame as it was handed over.
    std::function<void(unsigned char* frame, int length)> onResponse;

  private:
    struct Entries;
    void note(const std::string& call);

    LogCapture log_;
    std::vector<std::string> trace_;
};

}  // namespace test
