#include "record/memory_files.h"

#include <algorithm>
#include <utility>

namespace test {

using velmora::record::Bytes;
using velmora::record::FileError;
using velmora::record::IfExists;
using Kind = MemoryFiles::Operation::Kind;

class MemoryFiles::File final : public velmora::record::OutputFile {
  public:
    File(MemoryFiles& files, std::string path) : files_(files), path_(std::move(path)) {}
    void write(std::uint64_t offset, Bytes bytes) override {
        files_.add({Kind::Write, path_, offset, {bytes.begin(), bytes.end()}});
    }
    void truncate(std::uint64_t size) override { files_.add({Kind::Truncate, path_, size}); }
    void replace(Bytes content) override { files_.add({Kind::Replace, path_, 0, {content.begin(), content.end()}}); }
    void sync() override {}
    void close() override {}

  private:
    MemoryFiles& files_;
    const std::string path_;
};

void MemoryFiles::add(Operation operation) {
    operation.time = now;
    std::uint64_t others = 0;
    for (const auto& [path, bytes] : sizes_)
        others += path == operation.path ? 0 : bytes;
    std::uint64_t& size = sizes_[operation.path];
    const std::uint64_t end = operation.at + operation.bytes.size();
    // What replaces a file is written beside it.
    const std::uint64_t needed = operation.kind == Kind::Replace ? size + end : std::max(end, size);
    if (operation.kind != Kind::Truncate && needed > size && others + needed > capacity) {
        if (operation.kind == Kind::Write && others + operation.at < capacity) {  // what fits is written
            size = capacity - others;
            operation.bytes.resize(static_cast<std::size_t>(size - operation.at));
            operations.push_back(std::move(operation));
        }
        throw FileError(FileError::Reason::NoSpace, "full");
    }
    size = operation.kind == Kind::Write ? needed : end;
    operations.push_back(std::move(operation));
}

std::unique_ptr<velmora::record::OutputFile> MemoryFiles::create(const std::string& path, Bytes content,
                                                                 IfExists ifExists) {
    check(path, ifExists);
    auto file = std::make_unique<File>(*this, path);
    file->replace(content);
    return file;
}

void MemoryFiles::check(const std::string& path, IfExists ifExists) {
    if (ifExists == IfExists::Refuse && sizes_.count(path) != 0)
        throw FileError(FileError::Reason::Exists, path);
}

std::optional<std::string> MemoryFiles::contentAfter(const std::string& path, std::size_t count) const {
    std::optional<std::string> result;
    for (std::size_t i = 0; i < count; ++i) {
        const Operation& operation = operations[i];
        if (operation.path != path)
            continue;
        if (operation.kind == Kind::Replace) {
            result = operation.bytes;
            continue;
        }
        const auto at = static_cast<std::size_t>(operation.at), length = operation.bytes.size();
        result->resize(operation.kind == Kind::Truncate ? at : std::max(result->size(), at + length));
        result->replace(at, length, operation.bytes);
    }
    return result;
}

}  // namespace test
