#include <climits>

#include "support/test_line.h"

namespace test {

TestLine plugLine() {
    auto end = dongle::makePtyTransport();
    std::string port = end->hostPath();
    return {std::move(port), std::move(end)};
}

int linesAtOnce() {
    return INT_MAX;
}

bool linesCanHangUp() {
    return true;
}

}  // namespace test
