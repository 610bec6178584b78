#pragma once

#include <cstddef>

namespace test {

/// Bytes of memory that this process has resident.
std::size_t processMemory();

/// Descriptors or handles that this process has open.
std::size_t openHandles();

}  // namespace test
