#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>

namespace test {

/// A block in a heap allocation of exactly its size, so that a sanitizer sees every read beyond it.
class ExactBlock {
  public:
    explicit ExactBlock(std::span<const std::uint8_t> bytes)
        : size_(bytes.size()), data_(std::make_unique<std::uint8_t[]>(bytes.size())) {
        std::copy(bytes.begin(), bytes.end(), data_.get());
    }
    std::span<std::uint8_t> span() const { return {data_.get(), size_}; }

  private:
    std::size_t size_;
    std::unique_ptr<std::uint8_t[]> data_;
};

}  // namespace test
