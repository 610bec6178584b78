#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace test {

/// Collects what the library logs while it lives, each record as "VERBOSITY TEXT", for example "-1 No device
/// connected".
class LogCapture {
  public:
    /// Records above `verbosity` are not asked for, and thus not even formatted by the library.
    explicit LogCapture(int verbosity = 9);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const;
    /// The lines so far, which are then forgotten.
    std::vector<std::string> take();
    int count(const std::string& line) const;
    bool has(const std::string& line) const { return count(line) > 0; }

  private:
    std::string id_;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace test
