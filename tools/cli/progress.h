// What a recording tells while it runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "record/recording.h"

namespace velmora::cli {

/// The state of a recording in one line, in shorter words where it would fill that many columns.
///   freeBytes  what is left on the disk; 0: not known
std::string progressLine(const record::Progress& progress, double seconds, std::uint64_t freeBytes, std::size_t width);

}  // namespace velmora::cli
