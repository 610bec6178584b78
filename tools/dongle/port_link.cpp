#include "dongle/port_link.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace dongle {

namespace fs = std::filesystem;

PortLink::PortLink(std::string path, std::string target) : path_(std::move(path)), target_(std::move(target)) {
    std::error_code error;
    const fs::file_status there = fs::symlink_status(path_, error);
    if (fs::exists(there)) {
        if (!fs::is_symlink(there))
            throw std::runtime_error(path_ + " exists and is not a link of a dongle");
        const std::string old = fs::read_symlink(path_, error).string();
        if (!old.starts_with("/dev/pts/"))
            throw std::runtime_error(path_ + " is a link to " + old + ", not to a dongle");
        // A link to the terminal that we ourselves were given now: whoever made it is gone.
        if (old != target_ && fs::exists(old, error)) {
            throw std::runtime_error(path_ + " is a link to " + old +
                                     ", which is in use; remove it if it was left over");
        }
        fs::remove(path_, error);
    }
    fs::create_symlink(target_, path_, error);
    if (error)
        throw std::runtime_error("no link can be made at " + path_ + ": " + error.message());
}

PortLink::~PortLink() {
    std::error_code error;
    if (fs::read_symlink(path_, error) == fs::path(target_) && !error)
        fs::remove(path_, error);
}

}  // namespace dongle
