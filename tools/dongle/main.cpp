// velmora-dongle: a dongle with headsets for hosts that have none.
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>

#include "dongle/dongle_runner.h"
#include "dongle/port_link.h"
#include "dongle/program_options.h"
#include "dongle/stop_signals.h"

namespace {

using namespace dongle;

// How often new requests are looked for and printed.
constexpr Time kLookEvery = 50ms;

std::string readyText(const ProgramOptions& options, const std::string& hostPath) {
    if (!options.port.empty())
        return "ready on " + hostPath + " (the host takes the other end of the line)";
    const std::string& name = options.link.empty() ? hostPath : options.link;
    const std::string what = options.link.empty() ? "" : "a link to " + hostPath + "; ";
    return "ready on " + name + " (" + what + "host: velmora scan --port " + name + ")";
}

void printSummary(const Settings& settings, Runner& runner) {
    const RunnerCounters line = runner.counters();
    runner.with([&](Engine& engine) {
        const Counters counters = engine.counters();
        std::cout << "summary: " << engine.log().total << " requests of the host (" << counters.unknownTexts
                  << " unknown texts, " << counters.garbageBytes << " unknown bytes), " << line.bytesWritten
                  << " bytes written, " << line.bytesDropped << " dropped, " << line.bytesRead << " read\n";
        for (const HeadsetSettings& headset : settings.headsets) {
            const HeadsetCounters& did = engine.headsetCounters(headset.index);
            std::cout << "summary: headset " << headset.address << " (device " << headset.index << "): raw "
                      << did.rawProduced << " made, " << did.rawSent << " sent, " << did.rawLost << " lost, "
                      << did.rawDropped << " dropped, " << did.rawRepeated << " repeated, " << did.rawCorrupted
                      << " corrupted; " << did.samples << " samples; battery " << did.battery << ", post " << did.post
                      << ", responses " << did.responses << "\n";
        }
    });
    std::cout << std::flush;
}

void serve(const ProgramOptions& options, Runner& runner) {
    const auto begin = std::chrono::steady_clock::now();
    std::uint64_t seen = 0;
    bool last = false;
    while (!last) {
        const Time age = std::chrono::steady_clock::now() - begin;
        last = stopAsked() || runner.hungUp() || (options.duration > Time{0} && age >= options.duration);
        const auto requests = runner.with([&](Engine& engine) {
            auto fresh = engine.log().since(seen);
            seen = engine.log().total;
            return fresh;
        });
        for (const HostRequest& request : requests) {
            if (!options.quiet)
                std::cout << "host: " << describe(request) << "\n";
        }
        std::cout << std::flush;
        if (!last)
            std::this_thread::sleep_for(kLookEvery);
    }
    if (runner.hungUp())
        std::cout << "velmora-dongle: hung up\n";
}

}  // namespace

int main(int argc, char** argv) {
    ProgramOptions options;
    if (const auto exitCode = parseCommandLine(argc, argv, options))
        return *exitCode;
    if (options.port.empty() && !hasPseudoTerminals()) {
        std::cerr
            << "velmora-dongle: this system has no pseudo-terminals to make or link; give a serial port (--port)\n";
        return kExitUsage;
    }
    catchStopSignals();
    try {
        Runner runner(options.settings, options.port.empty() ? makePtyTransport() : makeSerialTransport(options.port));
        std::optional<PortLink> link;
        if (!options.link.empty())
            link.emplace(options.link, runner.hostPath());
        std::cout << "velmora-dongle: " << readyText(options, runner.hostPath()) << std::endl;
        serve(options, runner);
        printSummary(options.settings, runner);
    } catch (const std::exception& problem) {
        std::cerr << "velmora-dongle: " << problem.what() << "\n";
        return kExitPort;
    }
    return kExitFine;
}
