#pragma once

#include <cstddef>

namespace test {

/// Bytes of memory that this process has resident.
std::size_t processMemory();

}  // namespace test
