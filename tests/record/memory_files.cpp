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

std::uint64_t MemoryFiles::used() const {
    std::uint64_t sum = 0;
    for (const auto& [path, size] : sizes_)
        sum += size;
    return sum;
}

void MemoryFiles::add(Operation operation) {
    operation.time = now;
    std::uint64_t& size = sizes_[operation.path];
    if (operation.kind == Kind::Truncate) {
        size = operation.at;
    } else {
        const bool replaces = operation.kind == Kind::Replace;
        const std::uint64_t end = operation.at + operation.bytes.size();
        const std::uint64_t grows = replaces ? end : std::max(end, size) - size;
        if (const std::uint64_t taken = used(); taken + grows > capacity) {
            if (!replaces) {  // what fits is written
                operation.bytes.resize(operation.bytes.size() - static_cast<std::size_t>(taken + grows - capacity));
                size = capacity - (taken - size);
                operations.push_back(std::move(operation));
            }
            throw FileError(FileError::Reason::NoSpace, "full");
        }
        size = replaces ? end : std::max(end, size);
    }
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
        const std::string& bytes = operation.bytes;
        switch (operation.kind) {
            case Kind::Truncate:
                result->resize(static_cast<std::size_t>(operation.at));
                break;
            case Kind::Replace:
                result = bytes;
                break;
            case Kind::Write:
                result->resize(std::max(result->size(), static_cast<std::size_t>(operation.at) + bytes.size()));
                result->replace(static_cast<std::size_t>(operation.at), bytes.size(), bytes);
                break;
        }
    }
    return result;
}

}  // namespace test
