#include "support/test_line.h"

namespace test {

TestLine plugLine() {
    auto end = dongle::makePtyTransport();
    std::string port = end->hostPath();
    return {std::move(port), std::move(end)};
}

bool linesCanHangUp() {
    return true;
}

}  // namespace test
