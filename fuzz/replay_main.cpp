// Runs one fuzz target over files and folders of inputs: replay_TARGET PATH...

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

bool replay(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    if (!stream) {
        std::fprintf(stderr, "cannot read %s\n", file.string().c_str());
        return false;
    }
    std::printf("%s\n", file.string().c_str());
    std::fflush(stdout);  // so that the last line names the input that ends the program
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    return true;
}

bool replayAll(int count, char** paths) {
    std::vector<fs::path> files;
    for (int i = 0; i < count; ++i) {
        if (fs::is_directory(paths[i])) {
            files.insert(files.end(), fs::directory_iterator(paths[i]), {});
        } else {
            files.emplace_back(paths[i]);
        }
    }
    std::printf("%d inputs\n", static_cast<int>(files.size()));
    return !files.empty() && std::all_of(files.begin(), files.end(), replay);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return replayAll(argc - 1, argv + 1) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
