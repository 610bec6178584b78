#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/stream_builder.h"

namespace test {

/// What StreamReader does, slowly and in plain sight: strings, no state but what has not been used yet.
class ReferenceReader {
  public:
    /// One read, at a time in milliseconds. An empty one lets time pass.
    void read(const Bytes& bytes, int ms);

    bool scanning = false;
    std::string trace;  // "INDEX KIND BYTES" or "text KIND TEXT", each in a line of its own
    std::uint64_t stray = 0, damagedHeaders = 0, incomplete = 0;

  private:
    struct Header {
        bool whole = false, possible = false;
        int index = 0;
        std::size_t length = 0;
        std::size_t payload = 0;
    };
    static Header headerAt(std::string_view text);
    int textAt(std::string_view text) const;
    bool isTextByte(char c) const;
    void takeByte(char c);
    void takePayload(std::size_t index, const std::string& payload);
    void text(int kind, const std::string& text);

    std::string line_;                // what has not been used
    std::vector<int> times_;          // when each byte of it came
    std::string text_, behindFrame_;  // the unfinished text, and its part behind the last frame
    std::array<std::string, 16> pending_;
};

}  // namespace test
