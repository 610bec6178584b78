// What doctor makes of what it sees. No port, no system: facts go in, findings come out.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "link/port_list.h"

namespace velmora::cli {

struct Finding {
    enum class Result {
        kGood,
        kNote,  ///< nothing to mend, or nothing that could be looked at
        kProblem,
    };
    Result result = Result::kGood;
    std::string check;  ///< one word
    std::string text;
    std::string mend{};  ///< the command or act, for a problem
};

/// Whether this user may open the port, and who holds it.
Finding examineAccess(const kxorbeta_if::PortInfo& port);
/// How long the driver collects bytes. The library asks for little when it opens the port, so look while it is open.
Finding examineLatency(const kxorbeta_if::PortInfo& port);
/// Programs that open any serial port that appears, among the names of those that run.
Finding examineGrabbers(std::span<const std::string> programs);

/// What came within a second.
struct Measured {
    std::uint64_t packets = 0;
    std::uint64_t lost = 0;
    std::uint64_t dropped = 0;
    std::uint64_t damaged = 0;  ///< headers, frames and bytes that belong to nothing
};
Finding examineData(const Measured& measured);

/// For people, wrapped to that many columns.
std::string findingText(const Finding& finding, std::size_t width);
std::string findingsJson(std::span<const Finding> findings);

}  // namespace velmora::cli
