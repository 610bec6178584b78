#include <windows.h>

#include <algorithm>
#include <utility>

#include "base/windows_text.h"
#include "record/output_file.h"

namespace velmora::record {

namespace {

using kxorbeta_if::systemText;
using kxorbeta_if::wide;
using Reason = FileError::Reason;

// Not in MinGW's headers.
constexpr DWORD kDiskQuotaExceeded = 1295;

[[noreturn]] void fail(const std::string& path, const char* act, DWORD code) {
    const std::string front = path + " cannot be " + act + ": ";
    switch (code) {
        case ERROR_DISK_FULL:
        case ERROR_HANDLE_DISK_FULL:
            throw FileError(Reason::NoSpace, front + "the disk is full; free some space or choose another disk");
        case kDiskQuotaExceeded:
            throw FileError(Reason::NoSpace, front + "your quota on this disk is used up; free some space");
        case ERROR_FILE_TOO_LARGE:
            throw FileError(Reason::NoSpace, front + "it has the greatest size that the disk allows");
        case ERROR_ACCESS_DENIED:
        case ERROR_WRITE_PROTECT:
            throw FileError(Reason::Forbidden, front +
                                                   "you may not write there, or a program shows it; choose another "
                                                   "folder, or close that program");
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
            throw FileError(Reason::InUse, path + " is being written by another run; choose another name");
        case ERROR_PATH_NOT_FOUND:
        case ERROR_FILE_NOT_FOUND:
        case ERROR_DIRECTORY:
            throw FileError(Reason::NoFolder, front + "its folder does not exist; make it first");
        default:
            throw FileError(Reason::Failed, front + systemText(code));
    }
}

[[noreturn]] void exists(const std::string& path) {
    throw FileError(Reason::Exists, path + " exists; choose another name, or overwrite it with --force");
}

/// An open file, which no other program can open for writing.
class Handle {
  public:
    explicit Handle(HANDLE value = INVALID_HANDLE_VALUE) : value_(value) {}
    ~Handle() { (void)close(); }
    Handle(Handle&& other) noexcept : value_(std::exchange(other.value_, INVALID_HANDLE_VALUE)) {}
    Handle& operator=(Handle&& other) noexcept {
        std::swap(value_, other.value_);
        return *this;
    }
    HANDLE get() const { return value_; }
    bool valid() const { return value_ != INVALID_HANDLE_VALUE; }
    bool close() { return !valid() || ::CloseHandle(std::exchange(value_, INVALID_HANDLE_VALUE)) != 0; }

  private:
    HANDLE value_;
};

Handle open(const std::string& path, DWORD disposition) {
    // To be renamed while it is open it has to share deletion.
    return Handle(::CreateFileW(wide(path).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

void writeAll(const Handle& file, const std::string& path, std::uint64_t offset, Bytes bytes) {
    while (!bytes.empty()) {
        OVERLAPPED place{};
        place.Offset = static_cast<DWORD>(offset & 0xFFFFFFFFU);
        place.OffsetHigh = static_cast<DWORD>(offset >> 32U);
        DWORD count = 0;
        const auto portion = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 1U << 24U));
        if (::WriteFile(file.get(), bytes.data(), portion, &count, &place) == 0) {
            fail(path, "written", ::GetLastError());
        }
        if (count == 0) {
            fail(path, "written", ERROR_DISK_FULL);
        }
        bytes = bytes.subspan(count);
        offset += count;
    }
}

void setSize(const Handle& file, const std::string& path, std::uint64_t size) {
    LARGE_INTEGER place;
    place.QuadPart = static_cast<LONGLONG>(size);
    if (::SetFilePointerEx(file.get(), place, nullptr, FILE_BEGIN) == 0 || ::SetEndOfFile(file.get()) == 0) {
        fail(path, "written", ::GetLastError());
    }
}

Handle openBeside(const std::string& path) {
    Handle file = open(path + ".tmp", OPEN_ALWAYS);
    if (!file.valid()) {
        fail(path, "made", ::GetLastError());
    }
    return file;
}

void removeBeside(Handle& file, const std::string& path) {
    file.close();
    ::DeleteFileW(wide(path + ".tmp").c_str());
}

// The content goes to a file beside, which then takes the name: there is always a whole file under it.
Handle prepare(const std::string& path, Bytes content) {
    Handle file = openBeside(path);
    try {
        setSize(file, path, 0);
        writeAll(file, path, 0, content);
    } catch (...) {
        removeBeside(file, path);
        throw;
    }
    return file;
}

void giveName(Handle& file, const std::string& path, bool overwrite) {
    const std::string beside = path + ".tmp";
    if (::MoveFileExW(wide(beside).c_str(), wide(path).c_str(), overwrite ? MOVEFILE_REPLACE_EXISTING : 0) != 0) {
        return;
    }
    const DWORD code = ::GetLastError();
    removeBeside(file, path);
    if (code == ERROR_ALREADY_EXISTS || code == ERROR_FILE_EXISTS) {
        exists(path);
    }
    fail(path, "made", code);
}

class Win32File final : public OutputFile {
  public:
    Win32File(std::string path, Handle file) : path_(std::move(path)), file_(std::move(file)) {}

    void write(std::uint64_t offset, Bytes bytes) override { writeAll(file_, path_, offset, bytes); }
    void truncate(std::uint64_t size) override { setSize(file_, path_, size); }

    void replace(Bytes content) override {
        Handle file = prepare(path_, content);
        // A file that is open cannot be replaced. Who opens it in between makes the next line fail, with a reason.
        file_.close();
        giveName(file, path_, true);
        file_ = std::move(file);
    }

    void sync() override {
        if (::FlushFileBuffers(file_.get()) == 0) {
            fail(path_, "written", ::GetLastError());
        }
    }

    void close() override {
        if (!file_.close()) {
            fail(path_, "closed", ::GetLastError());
        }
    }

  private:
    const std::string path_;
    Handle file_;
};

class Win32Files final : public Files {
  public:
    std::unique_ptr<OutputFile> create(const std::string& path, Bytes content, IfExists ifExists) override {
        checkOld(path, ifExists);
        Handle file = prepare(path, content);
        giveName(file, path, ifExists == IfExists::Overwrite);
        return std::make_unique<Win32File>(path, std::move(file));
    }

    void check(const std::string& path, IfExists ifExists) override {
        checkOld(path, ifExists);
        Handle file = openBeside(path);
        removeBeside(file, path);
    }

  private:
    static void checkOld(const std::string& path, IfExists ifExists) {
        const DWORD attributes = ::GetFileAttributesW(wide(path).c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            return;
        }
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            throw FileError(Reason::Failed, path + " is a folder; choose another name");
        }
        const Handle file = open(path, OPEN_EXISTING);
        const DWORD code = file.valid() ? ERROR_SUCCESS : ::GetLastError();
        if (code == ERROR_SHARING_VIOLATION) {
            fail(path, "overwritten", code);
        }
        if (ifExists == IfExists::Refuse) {
            exists(path);
        }
        if (code != ERROR_SUCCESS) {
            fail(path, "overwritten", code);
        }
    }
};

}  // namespace

Files& systemFiles() {
    static Win32Files files;
    return files;
}

std::uint64_t freeBytes(const std::string& path) {
    const std::size_t slash = path.find_last_of("/\\:");
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    ULARGE_INTEGER bytes;
    if (::GetDiskFreeSpaceExW(wide(folder).c_str(), &bytes, nullptr, nullptr) == 0) {
        return 0;
    }
    return bytes.QuadPart;
}

}  // namespace velmora::record
