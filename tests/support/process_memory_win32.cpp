#include <windows.h>
// After the header that it needs.
#include <psapi.h>

#include "support/process_memory.h"

namespace test {

std::size_t processMemory() {
    PROCESS_MEMORY_COUNTERS counters{};
    return GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) != 0 ? counters.WorkingSetSize : 0;
}

std::size_t openHandles() {
    DWORD count = 0;
    return GetProcessHandleCount(GetCurrentProcess(), &count) != 0 ? count : 0;
}

}  // namespace test
