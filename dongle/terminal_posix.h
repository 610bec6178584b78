// What the two kinds of terminal have in common: bounded reading and writing of a file descriptor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "dongle/dongle_settings.h"

namespace dongle {

/// Owns a non-blocking descriptor.
class TerminalFile {
  public:
    explicit TerminalFile(int descriptor) : descriptor_(descriptor) {}
    TerminalFile(const TerminalFile&) = delete;
    TerminalFile& operator=(const TerminalFile&) = delete;
    ~TerminalFile() { close(); }

    int descriptor() const { return descriptor_; }
    void close();
    /// Raw mode: no echo, no translation, no flow control, 8 bits.
    void makeRaw() const;
    /// Waits at most `most` for bytes and reads them. On a line that is hung up or broken it comes back at once.
    std::size_t read(std::span<std::uint8_t> into, Time most) const;
    std::size_t write(std::span<const std::uint8_t> bytes) const;
    /// The other end of a pseudo-terminal is closed.
    bool hungUp() const;

  private:
    int descriptor_;
};

/// Nothing else is to be done in that time.
void sleepFor(Time time);

}  // namespace dongle
