#include "support/working_folder.h"

#include <fstream>
#include <iterator>
#include <random>
#include <system_error>

namespace test {

namespace fs = std::filesystem;

WorkingFolder::WorkingFolder() : before_(fs::current_path()) {
    std::random_device random;
    do {
        path_ = fs::temp_directory_path() / ("velmora-test-" + std::to_string(random()));
    } while (!fs::create_directory(path_));
    fs::current_path(path_);
}

WorkingFolder::~WorkingFolder() {
    std::error_code ignored;  // a log file may still be open in it on Windows
    fs::current_path(before_, ignored);
    fs::remove_all(path_, ignored);
}

std::string WorkingFolder::read(const std::string& name) const {
    std::ifstream file(path_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

int WorkingFolder::count(const std::string& name, const std::string& text) const {
    const std::string all = read(name);
    int found = 0;
    for (std::size_t at = all.find(text); at != all.npos; at = all.find(text, at + 1)) {
        ++found;
    }
    return found;
}

}  // namespace test
