#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "session/stream_reader.h"
#include "support/stream_builder.h"

namespace test {

inline constexpr std::int64_t kMillisecond = 1'000'000;

/// A StreamReader whose sink writes what it is told into a trace, as ReferenceReader does.
class TracedReader {
  public:
    void read(const Bytes& bytes, int ms, bool stalled = false) {
        std::copy(bytes.begin(), bytes.end(), reader->room().begin());
        reader->received(bytes.size(), ms * kMillisecond, stalled, *this);
    }
    void frame(int index, protocol::FrameKind kind, const std::uint8_t* bytes, std::int64_t arrival) {
        trace += std::to_string(index) + " " + std::to_string(static_cast<int>(kind)) + " " +
                 hexOf({bytes, bytes + protocol::lengthOf(kind)}) + "\n";
        arrivals.push_back(static_cast<int>(arrival / kMillisecond));
    }
    void text(velmora::TextKind kind, std::string_view text, std::int64_t arrival) {
        trace += "text " + std::to_string(static_cast<int>(kind)) + " " + std::string(text) + "\n";
        arrivals.push_back(static_cast<int>(arrival / kMillisecond));
    }

    const std::unique_ptr<velmora::StreamReader> reader = std::make_unique<velmora::StreamReader>();
    std::string trace;
    std::vector<int> arrivals;
};

}  // namespace test
