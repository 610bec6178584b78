// A link to the dongle's terminal where hardware would appear.
#pragma once

#include <string>

namespace dongle {

class PortLink {
  public:
    /// Puts a symbolic link to `target` at `path`. Takes the place of a link that an ended dongle has left (one to a
    /// pseudo-terminal that is gone, or is now ours) and of nothing else. Throws std::runtime_error with the reason.
    PortLink(std::string path, std::string target);
    /// Removes the link, when it is still this one.
    ~PortLink();
    PortLink(const PortLink&) = delete;
    PortLink& operator=(const PortLink&) = delete;

  private:
    std::string path_;
    std::string target_;
};

}  // namespace dongle
