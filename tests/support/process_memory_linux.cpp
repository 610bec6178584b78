#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/process_memory.h"

namespace test {

std::size_t processMemory() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

std::size_t openHandles() {
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(open), end(open)));
}

}  // namespace test
