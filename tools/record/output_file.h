// Files that survive a full disk, a killed program and a second run of it.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace velmora::record {

using Bytes = std::span<const char>;

/// A file could not be made, written or closed. what() says which, why, and what to do.
class FileError : public std::runtime_error {
  public:
    enum class Reason {
        Exists,     ///< and may not be overwritten
        InUse,      ///< another program writes it
        NoSpace,    ///< the disk, the quota or the greatest size of a file is reached
        Forbidden,  ///< no permission, or a read-only disk
        NoFolder,   ///< the folder does not exist
        Failed,     ///< anything else; the text has the system's words
    };
    FileError(Reason reason, const std::string& text) : std::runtime_error(text), reason_(reason) {}
    Reason reason() const { return reason_; }

  private:
    Reason reason_;
};

/// A file of this program alone: no other run of it can write it as long as this lives. All functions but the
/// destructor throw FileError.
class OutputFile {
  public:
    virtual ~OutputFile() = default;

    /// Hands all bytes to the system, from `offset` on; what a killed program has handed over stays.
    virtual void write(std::uint64_t offset, Bytes bytes) = 0;
    virtual void truncate(std::uint64_t size) = 0;
    /// Gives the file another content, at once: who looks at any moment sees the old one or this.
    virtual void replace(Bytes content) = 0;
    /// Waits until everything is on the disk, which can take seconds when others use it. Some file systems tell only
    /// here that they could not write.
    virtual void sync() = 0;
    /// Further calls are not allowed. The destructor closes too, but tells no error.
    virtual void close() = 0;
};

enum class IfExists { Refuse, Overwrite };

/// Where files are made. Paths are UTF-8 on every system.
class Files {
  public:
    virtual ~Files() = default;
    /// Makes a file with this content; there is no moment in which it is there with less. Throws FileError.
    virtual std::unique_ptr<OutputFile> create(const std::string& path, Bytes content, IfExists ifExists) = 0;
    /// Throws FileError if create() would refuse because of what is there already, or because nothing can be made
    /// there.
    virtual void check(const std::string& path, IfExists ifExists) = 0;
};

/// The file system. Lives as long as the program.
Files& systemFiles();

/// Bytes that this user can still write where the file is; 0 when the system does not tell.
std::uint64_t freeBytes(const std::string& path);

}  // namespace velmora::record
