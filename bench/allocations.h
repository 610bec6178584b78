#pragma once

#include <cstdint>

namespace bench {

/// How often this program has asked for heap memory (operator new) so far.
std::uint64_t allocations() noexcept;

}  // namespace bench
