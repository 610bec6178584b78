// Calls while memory is short: each in a process of its own for each allocation in it that fails. The call gives its
// failure value, and the next one works. Exit code 0 when all was as it should be.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

#include "sdk/VelmoraSDK.h"
#include "sdk/sdk_context.h"

namespace {
long untilFailure = -1;  // allocations that succeed before one fails; negative when none is to fail
}  // namespace

void* operator new(std::size_t size) {
    void* const memory = untilFailure-- == 0 ? nullptr : std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

constexpr const char* kLongName = "a name that no small text buffer holds";

/// The search finds no port, and commands are queued.
void prepare() {
    kxorbeta_if::processContext().search.deviceFolder = "/dev/null";
    kxorbeta_if::processContext().core.flags.linkActive = true;
}

struct Call {
    const char* name;
    bool (*fails)();     ///< makes the call; whether it gave its failure value
    bool needed = true;  ///< each allocation is; else the call may do without, as for a log line
    bool allocates = true;
};
constexpr Call kCalls[] = {
    {.name = "SDK_GetVersion",
     .fails = [] { return SDK_GetVersion() == std::string_view("Unknown"); },
     .allocates = false},
    {.name = "SDK_Init", .fails = [] { return SDK_Init() == 0; }, .needed = false},
    {.name = "SDK_CheckPort", .fails = [] { return prepare(), *SDK_CheckPort() == 0; }},
    {.name = "SDK_ConnectPort", .fails = [] { return SDK_ConnectPort(kLongName) == 0; }},
    {.name = "SDK_ConnectDevice", .fails = [] { return SDK_ConnectDevice(kLongName, 0) == 0; }},
    {.name = "SDK_SendCommand", .fails = [] { return prepare(), SDK_SendCommand(1, 2) == 0; }},
    {.name = "SDK_SendCommandWithPayload",
     .fails = [] { return prepare(), SDK_SendCommandWithPayload(1, 2, nullptr, 0) == 0; }},
};

enum Outcome { kFailed, kDidWithout, kNotReached, kBroken };

Outcome outcomeOf(const Call& call, long number) {
    const pid_t child = fork();
    if (child == 0) {
        untilFailure = number;
        const bool failed = call.fails();
        const bool reached = untilFailure < 0;
        untilFailure = -1;
        const bool worksAgain = SDK_GetVersion() == std::string_view("1.06");
        _exit(!worksAgain ? kBroken : !reached ? kNotReached : failed ? kFailed : kDidWithout);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? static_cast<Outcome>(WEXITSTATUS(status)) : kBroken;
}

/// Fails the allocations of the call one after the other.
bool keepsItsPromise(const Call& call) {
    long reached = 0, failed = 0;
    Outcome outcome = kFailed;
    for (; reached < 5000; ++reached) {
        outcome = outcomeOf(call, reached);
        if (outcome != kFailed && outcome != kDidWithout) {
            break;
        }
        failed += outcome == kFailed;
    }
    std::printf("%s: %ld allocations, %ld of them needed\n", call.name, reached, failed);
    return outcome == kNotReached && (failed > 0) == call.allocates && (!call.needed || failed == reached);
}

}  // namespace

int main() {
    for (const Call& call : kCalls) {
        if (!keepsItsPromise(call)) {
            std::printf("%s does not keep its promise\n", call.name);
            return 1;
        }
    }
    return 0;
}
