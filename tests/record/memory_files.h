#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "record/output_file.h"

namespace test {

/// A disk in memory that can run full, and that can tell what was on it at any moment.
class MemoryFiles final : public velmora::record::Files {
  public:
    /// One thing that happened to a file.
    struct Operation {
        enum class Kind { Write, Truncate, Replace } kind;
        std::string path;
        std::uint64_t at = 0;
        std::string bytes{};
        std::int64_t time = 0;
    };

    std::unique_ptr<velmora::record::OutputFile> create(const std::string& path, velmora::record::Bytes content,
                                                        velmora::record::IfExists ifExists) override;
    void check(const std::string& path, velmora::record::IfExists ifExists) override;

    /// What a file holds after that many operations. Nothing when it was not there.
    std::optional<std::string> contentAfter(const std::string& path, std::size_t count) const;
    std::optional<std::string> content(const std::string& path) const { return contentAfter(path, operations.size()); }

    std::vector<Operation> operations;
    std::uint64_t capacity = UINT64_MAX;  ///< bytes of all files
    std::int64_t now = 0;                 ///< noted with each operation

  private:
    class File;
    void add(Operation operation);

    std::map<std::string, std::uint64_t> sizes_;
};

}  // namespace test
