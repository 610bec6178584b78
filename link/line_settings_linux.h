#pragma once

#include <asm/termbits.h>

#include <optional>

#include "link/line_settings.h"

/// Line settings of a terminal through the kernel's own records, which alone carry any baud rate. The kernel's header
/// clashes with the C library's <termios.h>, so these functions have a source file to themselves.
namespace kxorbeta_if::line_settings_linux {

bool get(int device, termios2& line);
bool set(int device, const termios2& line);

/// `line` with the given rate, data bits, stop bits and parity, in raw mode, all else as it was. Nothing when no
/// terminal can do it: 16 data bits, or 1.5 stop bits with other than 5 data bits.
std::optional<termios2> withSettings(termios2 line, const LineSettings& settings);

}  // namespace kxorbeta_if::line_settings_linux
