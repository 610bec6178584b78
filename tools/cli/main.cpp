// velmora: headsets on the command line.
#include <exception>
#include <iostream>

#include "base/stop_signals.h"
#include "cli/arguments.h"
#include "cli/failure.h"
#include "cli/reporter.h"
#include "cli/terminal.h"

namespace {

using namespace velmora::cli;

int fail(const Failure& failure) {
    std::cerr << "velmora: " << failure.what() << std::endl;
    return failure.code();
}

int run(const Invocation& invocation) {
    try {
        Reporter reporter(invocation.quiet);
        invocation.command(reporter);
        return kDone;
    } catch (const Failure& failure) {
        return fail(failure);
    } catch (const velmora::Error& error) {
        return fail(asFailure(error));
    } catch (const std::exception& problem) {
        return fail({kNotDone, problem.what()});
    }
}

}  // namespace

// What is thrown outside run() is want of memory, which ends any program.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv) {
    prepareConsole();
    Invocation invocation;
    if (const auto exitCode = parseCommandLine(programArguments(argc, argv), invocation)) {
        return *exitCode;
    }
    userStop();  // made before a signal can come
    kxorbeta_if::catchStopSignals([] { userStop().raise(); });
    const int exitCode = run(invocation);
    if (!std::cout.flush() && exitCode == kDone) {
        return fail({kNoOutput, "standard output cannot be written; is the disk full, or its reader gone?"});
    }
    return exitCode;
}
