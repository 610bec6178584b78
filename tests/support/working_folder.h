#pragma once

#include <filesystem>
#include <string>

namespace test {

/// A new empty folder that is the current one while this lives; then it goes, and the old one is current again.
class WorkingFolder {
  public:
    WorkingFolder();
    ~WorkingFolder();
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

    /// The text of a file in it; empty when there is none.
    std::string read(const std::string& name) const;
    /// How often `text` stands in a file.
    int count(const std::string& name, const std::string& text) const;

  private:
    std::filesystem::path before_;
    std::filesystem::path path_;
};

}  // namespace test
