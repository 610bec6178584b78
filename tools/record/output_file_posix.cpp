#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <utility>

#include "record/output_file.h"

namespace velmora::record {

namespace {

using Reason = FileError::Reason;

[[noreturn]] void fail(const std::string& path, const char* act, int code) {
    const std::string front = path + " cannot be " + act + ": ";
    switch (code) {
        case ENOSPC:
            throw FileError(Reason::NoSpace, front + "the disk is full; free some space or choose another disk");
        case EDQUOT:
            throw FileError(Reason::NoSpace, front + "your quota on this disk is used up; free some space");
        case EFBIG:
            throw FileError(Reason::NoSpace, front + "it has the greatest size that the disk or ulimit -f allows");
        case EACCES:
        case EPERM:
            throw FileError(Reason::Forbidden, front + "you may not write there; choose another folder");
        case EROFS:
            throw FileError(Reason::Forbidden, front + "the disk is read-only; choose another one");
        case ENOENT:
        case ENOTDIR:
            throw FileError(Reason::NoFolder, front + "its folder does not exist; make it first");
        default:
            throw FileError(Reason::Failed, front + std::system_category().message(code));
    }
}

[[noreturn]] void inUse(const std::string& path) {
    throw FileError(Reason::InUse, path + " is being written by another run; choose another name");
}

[[noreturn]] void exists(const std::string& path) {
    throw FileError(Reason::Exists, path + " exists; choose another name, or overwrite it with --force");
}

/// An open descriptor.
class Descriptor {
  public:
    explicit Descriptor(int value = -1) : value_(value) {}
    ~Descriptor() { (void)close(); }
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    int get() const { return value_; }
    int close() { return value_ < 0 ? 0 : ::close(std::exchange(value_, -1)); }

  private:
    int value_;
};

// False when another program has the lock. File systems without locks have none to be had.
bool lock(const Descriptor& file) {
    return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

bool sameFile(const Descriptor& file, const std::string& path) {
    struct stat byDescriptor {};
    struct stat byPath {};
    return ::fstat(file.get(), &byDescriptor) == 0 && ::stat(path.c_str(), &byPath) == 0 &&
           byDescriptor.st_dev == byPath.st_dev && byDescriptor.st_ino == byPath.st_ino;
}

void writeAll(const Descriptor& file, const std::string& path, std::uint64_t offset, Bytes bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::pwrite(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            fail(path, "written", errno);
        }
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
}

// A file beside, of this program alone.
Descriptor openBeside(const std::string& path) {
    const std::string beside = path + ".tmp";
    for (;;) {
        Descriptor file(::open(beside.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
        if (file.get() < 0) {
            fail(path, "made", errno);
        }
        if (!lock(file)) {
            inUse(path);
        }
        if (sameFile(file, beside)) {  // or its maker gave it its name in between
            return file;
        }
    }
}

void removeBeside(const std::string& path) {
    (void)::unlink((path + ".tmp").c_str());
}

// The content goes to a file beside, which then takes the name: there is always a whole file under it.
Descriptor prepare(const std::string& path, Bytes content) {
    Descriptor file = openBeside(path);
    try {
        if (::ftruncate(file.get(), 0) != 0) {
            fail(path, "made", errno);
        }
        writeAll(file, path, 0, content);
    } catch (...) {
        removeBeside(path);
        throw;
    }
    return file;
}

void giveName(const std::string& path, bool overwrite) {
    const std::string beside = path + ".tmp";
    if (!overwrite) {
        if (::renameat2(AT_FDCWD, beside.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) {
            return;
        }
        const bool unsupported = errno == EINVAL || errno == ENOSYS;
        if (!unsupported || ::access(path.c_str(), F_OK) == 0) {
            const int code = unsupported ? EEXIST : errno;
            removeBeside(path);
            if (code == EEXIST) {
                exists(path);
            }
            fail(path, "made", code);
        }
    }
    if (::rename(beside.c_str(), path.c_str()) != 0) {
        const int code = errno;
        removeBeside(path);
        fail(path, "made", code);
    }
}

class PosixFile final : public OutputFile {
  public:
    PosixFile(std::string path, Descriptor file) : path_(std::move(path)), file_(std::move(file)) {}

    void write(std::uint64_t offset, Bytes bytes) override { writeAll(file_, path_, offset, bytes); }

    void truncate(std::uint64_t size) override {
        while (::ftruncate(file_.get(), static_cast<off_t>(size)) != 0) {
            if (errno != EINTR) {
                fail(path_, "written", errno);
            }
        }
    }

    void replace(Bytes content) override {
        Descriptor file = prepare(path_, content);
        giveName(path_, true);
        file_ = std::move(file);
    }

    void sync() override {
        // Pipes and some file systems cannot; that is no failure to write.
        if (::fdatasync(file_.get()) != 0 && errno != EINVAL && errno != EROFS && errno != EINTR) {
            fail(path_, "written", errno);
        }
    }

    void close() override {
        if (file_.close() != 0 && errno != EINTR) {
            fail(path_, "closed", errno);
        }
    }

  private:
    const std::string path_;
    Descriptor file_;
};

class PosixFiles final : public Files {
  public:
    // A limit on file sizes would otherwise end the program instead of failing the write.
    PosixFiles() { (void)std::signal(SIGXFSZ, SIG_IGN); }

    std::unique_ptr<OutputFile> create(const std::string& path, Bytes content, IfExists ifExists) override {
        // The lock on the file that goes keeps others from taking it for free until it has gone.
        const Descriptor old = checked(path, ifExists);
        Descriptor file = prepare(path, content);
        giveName(path, ifExists == IfExists::Overwrite);
        return std::make_unique<PosixFile>(path, std::move(file));
    }

    void check(const std::string& path, IfExists ifExists) override {
        const Descriptor old = checked(path, ifExists);
        const Descriptor file = openBeside(path);
        removeBeside(path);
    }

  private:
    static Descriptor checked(const std::string& path, IfExists ifExists) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) {
            return Descriptor();
        }
        if (S_ISDIR(status.st_mode)) {
            throw FileError(Reason::Failed, path + " is a folder; choose another name");
        }
        Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (file.get() >= 0 && !lock(file)) {
            inUse(path);
        }
        if (ifExists == IfExists::Refuse) {
            exists(path);
        }
        if (file.get() < 0) {
            fail(path, "overwritten", errno);
        }
        return file;
    }
};

}  // namespace

Files& systemFiles() {
    static PosixFiles files;
    return files;
}

std::uint64_t freeBytes(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    struct statvfs status {};
    if (::statvfs(folder.c_str(), &status) != 0) {
        return 0;
    }
    return static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
}

}  // namespace velmora::record
