#include <benchmark/benchmark.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "allocations.h"
#include "base/log.h"
#include "registration.h"

namespace {
std::atomic<std::uint64_t> allocationCount{0};
}

std::uint64_t bench::allocations() noexcept {
    return allocationCount.load(std::memory_order_relaxed);
}

void* operator new(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

int main(int argc, char** argv) {
    // Without a log file this leaves no output at all: records cost what asking for the cut-off costs.
    kxorbeta_if::logConsoleOff();

    bench::registerReceiveBenchmarks();
    bench::registerSessionBenchmarks();
    bench::registerTextBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
