// Runs one fuzz target over files and folders of inputs: replay_TARGET PATH...

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
    int done = 0;
    for (int i = 0; i < count; ++i) {
        std::vector<fs::path> files;
        if (fs::is_directory(paths[i])) {
            for (const fs::directory_entry& entry : fs::directory_iterator(paths[i])) {
                files.push_back(entry.path());
            }
        } else {
            files.emplace_back(paths[i]);
        }
        for (const fs::path& file : files) {
            if (!replay(file)) {
                return false;
            }
            ++done;
        }
    }
    std::printf("%d inputs\n", done);
    return done > 0;
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
