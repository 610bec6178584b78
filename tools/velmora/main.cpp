// velmora: the headsets' data and commands on the command line.
#include <exception>
#include <iostream>
#include <optional>

#include "velmora/arguments.h"
#include "velmora/failure.h"
#include "velmora/terminal.h"

namespace {

using namespace velmora;

/// Runs `work` and tells the user about its failure.
template <typename Work>
int exitCodeOf(Work work) {
    try {
        work();
        return kExitDone;
    } catch (const Failure& failure) {
        std::cerr << "velmora: " << failure.what() << std::endl;
        return failure.code();
    } catch (const std::exception& problem) {
        std::cerr << "velmora: " << problem.what() << std::endl;
        return kExitDongle;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Invocation invocation;
    if (const auto exitCode = parseCommandLine(argc, argv, invocation))
        return *exitCode;
    catchStopSignals();
    std::optional<Session> session;
    int exitCode = exitCodeOf([&] {
        session.emplace(invocation.quiet);
        invocation.command(*session);
    });
    const bool ended = !session || session->close();
    if (!std::cout.flush() && exitCode == kExitDone) {
        std::cerr << "velmora: standard output cannot be written" << std::endl;
        exitCode = kExitOutput;
    }
    if (!ended)
        endProcessNow(exitCode);
    return exitCode;
}
