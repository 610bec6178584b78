#include "fuzz_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::readStream({data, size}, false);
    return 0;
}
