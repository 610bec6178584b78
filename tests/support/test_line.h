#pragma once

#include <memory>
#include <string>

#include "dongle/transport.h"

namespace test {

/// A serial line for one test: the host opens `hostPort`, the test or its virtual dongle holds the other end. On POSIX
/// systems a pseudo-terminal; on Windows a pair of ports that whoever started the program has plugged together.
struct TestLine {
    std::string hostPort;  ///< as for SDK_ConnectPort
    std::unique_ptr<dongle::Transport> dongleEnd;
};

/// A line with nothing on it. Under Windows the pairs that the program was given are taken in turn.
TestLine plugLine();

/// Whether the host sees it when the dongle's end goes away, and is refused a port that somebody holds.
bool linesCanHangUp();

/// The path that SerialPort::open takes for the host's end.
inline std::string portPath(const TestLine& line) {
    return R"(\\.\)" + line.hostPort;
}

}  // namespace test
