// Lines of text for a file that a killed program leaves whole.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "record/output_file.h"

namespace velmora::record {

/// A table: lines that stay, and behind them lines that the next commit() writes anew.
class TextFile {
  public:
    /// The file is made by the first commit(). `files` must outlive this.
    TextFile(Files& files, std::string path, IfExists ifExists)
        : files_(files), path_(std::move(path)), ifExists_(ifExists) {}

    /// Everything anew: the next commit() replaces what the file has.
    void begin(std::string title);
    void add(std::string_view lines) { waiting_ += lines; }
    /// Throws FileError; the file then ends with what was added before the last call that did not.
    void commit(std::string_view open = {});
    void finish();
    std::uint64_t size() const { return size_; }
    const std::string& path() const { return path_; }

  private:
    Files& files_;
    const std::string path_;
    const IfExists ifExists_;
    std::unique_ptr<OutputFile> file_;
    std::string waiting_;
    std::uint64_t settled_ = 0;  // bytes that will not change any more
    std::uint64_t size_ = 0;
    bool made_ = false;
};

/// As one field of a table, RFC 4180.
std::string csvField(std::string_view text);

/// A number as the last characters of `text`, with a point and `decimals` digits behind it.
void appendFixed(std::string& text, double value, int decimals);

}  // namespace velmora::record
