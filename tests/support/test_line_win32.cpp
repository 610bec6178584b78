#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "support/test_line.h"

namespace test {
namespace {

struct Pair {
    std::string host;
    std::string dongle;
};

const std::vector<Pair>& pairs() {
    static const std::vector<Pair> all = [] {
        std::vector<Pair> found;
        const char* const names = std::getenv("VELMORA_LINES");
        std::istringstream words(names == nullptr ? "" : names);
        for (std::string word; words >> word;) {
            const std::size_t colon = word.find(':');
            found.push_back({word.substr(0, colon), word.substr(colon + 1)});
        }
        return found;
    }();
    return all;
}

/// Bytes that an earlier test left on the way are not this test's.
void drain(const Pair& pair) {
    for (const std::string& name : {pair.host, pair.dongle}) {
        const auto end = dongle::makeSerialTransport(name);
        std::array<std::uint8_t, 4096> bytes{};
        while (end->read(bytes, std::chrono::milliseconds(30)) > 0) {
        }
    }
}

}  // namespace

TestLine plugLine() {
    static std::size_t next = 0;
    if (pairs().empty()) {
        throw std::runtime_error("VELMORA_LINES names no pair of serial ports");
    }
    const Pair& pair = pairs()[next++ % pairs().size()];
    drain(pair);
    return {pair.host, dongle::makeSerialTransport(pair.dongle)};
}

bool linesCanHangUp() {
    return false;
}

}  // namespace test
