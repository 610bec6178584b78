#include "dongle/port_link.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace dongle {

namespace fs = std::filesystem;

namespace {

/// The link comes and goes with the terminal.
class LinkedTerminal : public Transport {
  public:
    explicit LinkedTerminal(const std::string& link)
        : terminal_(makePtyTransport()), link_(std::in_place, link, terminal_->hostPath()), name_(link) {}

    std::string hostPath() const override { return name_; }
    std::size_t read(std::span<std::uint8_t> into, Time most) override { return terminal_->read(into, most); }
    std::size_t write(std::span<const std::uint8_t> bytes) override { return terminal_->write(bytes); }
    bool hostPresent() override { return terminal_->hostPresent(); }
    std::optional<std::size_t> leftUnread() override { return terminal_->leftUnread(); }
    std::optional<std::size_t> takeBack() override { return terminal_->takeBack(); }
    void hangUp() override {
        // First the name, so that nobody opens what is about to go.
        link_.reset();
        terminal_->hangUp();
    }

  private:
    std::unique_ptr<Transport> terminal_;
    std::optional<PortLink> link_;
    std::string name_;
};

}  // namespace

PortLink::PortLink(std::string path, std::string target) : path_(std::move(path)), target_(std::move(target)) {
    std::error_code error;
    const fs::file_status there = fs::symlink_status(path_, error);
    if (fs::exists(there)) {
        if (!fs::is_symlink(there)) {
            throw std::runtime_error(path_ + " exists and is not a link of a dongle");
        }
        const std::string old = fs::read_symlink(path_, error).string();
        if (!old.starts_with("/dev/pts/")) {
            throw std::runtime_error(path_ + " is a link to " + old + ", not to a dongle");
        }
        // A link to the terminal that we ourselves were given now: whoever made it is gone.
        if (old != target_ && fs::exists(old, error)) {
            throw std::runtime_error(path_ + " is a link to " + old +
                                     ", which is in use; remove it if it was left over");
        }
        fs::remove(path_, error);
    }
    fs::create_symlink(target_, path_, error);
    if (error) {
        throw std::runtime_error("no link can be made at " + path_ + ": " + error.message());
    }
}

PortLink::~PortLink() {
    std::error_code error;
    if (fs::read_symlink(path_, error) == fs::path(target_) && !error) {
        fs::remove(path_, error);
    }
}

std::unique_ptr<Transport> makeLinkedTerminal(const std::string& link) {
    return std::make_unique<LinkedTerminal>(link);
}

}  // namespace dongle
