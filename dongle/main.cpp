// velmora-dongle: a dongle with headsets for hosts that have none.
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "base/stop_signals.h"
#include "dongle/account_file.h"
#include "dongle/dongle_runner.h"
#include "dongle/port_link.h"
#include "dongle/program_options.h"

namespace {

using namespace dongle;

// How often new requests are looked for and printed.
constexpr Time kLookEvery = 50ms;

LineMaker lineMaker(const ProgramOptions& options) {
    if (!options.port.empty()) {
        return [port = options.port] { return makeSerialTransport(port); };
    }
    if (options.links.empty()) {
        return makePtyTransport;
    }
    return [links = options.links, turn = std::size_t{0}]() mutable {
        return makeLinkedTerminal(links[turn++ % links.size()]);
    };
}

std::string readyText(const ProgramOptions& options, const std::string& hostPath) {
    if (!options.port.empty()) {
        return "ready on " + hostPath + " (the host takes the other end of the line)";
    }
    std::error_code none;
    const std::string what =
        options.links.empty() ? "" : "a link to " + std::filesystem::read_symlink(hostPath, none).string() + "; ";
    return "ready on " + hostPath + " (" + what + "host: velmora scan --port " + hostPath + ")";
}

void printAccount(const PacketTotals& packets, const RunnerCounters& line) {
    std::cout << "summary: account: " << packets.produced << " packets = " << packets.lost << " lost + "
              << packets.dropped << " dropped + " << packets.sent << " sent; sent = " << packets.whole << " whole + "
              << packets.damaged << " damaged + " << packets.unread << " unread\n";
    if (line.unknownRests > 0) {
        std::cout << "summary: account: " << line.unknownRests
                  << " times the port went and what was unread is unknown\n";
    }
}

void printSummary(Runner& runner) {
    const RunnerCounters line = runner.counters();
    runner.with([&](Engine& engine) {
        const Counters counters = engine.counters();
        std::cout << "summary: " << engine.log().total << " requests of the host (" << counters.unknownTexts
                  << " unknown texts, " << counters.garbageBytes << " unknown bytes), " << line.bytesWritten
                  << " bytes written, " << line.bytesDropped << " dropped, " << line.bytesRead << " read\n";
        for (const Headset& headset : engine.headsets()) {
            const HeadsetCounters& did = headset.counters();
            const HeadsetSettings& is = headset.settings();
            std::cout << "summary: headset " << is.address << " (device " << is.index << "): raw " << did.rawProduced
                      << " made, " << did.rawSent << " sent, " << did.rawLost << " lost, " << did.rawDropped
                      << " dropped, " << did.rawRepeated << " repeated, " << did.rawCorrupted << " corrupted; "
                      << did.samples << " samples; battery " << did.battery << ", post " << did.post << ", responses "
                      << did.responses << "\n";
        }
        if (Account* account = engine.account()) {
            printAccount(account->sum(), line);
        }
    });
    std::cout << std::flush;
}

void serve(const ProgramOptions& options, Runner& runner) {
    const auto begin = std::chrono::steady_clock::now();
    std::uint64_t seen = 0;
    std::string path = runner.hostPath();
    bool last = false;
    while (!last) {
        const Time age = std::chrono::steady_clock::now() - begin;
        last = kxorbeta_if::stopRequests() > 0 || runner.hungUp() || !runner.problem().empty() ||
               (options.duration > Time{0} && age >= options.duration);
        const auto requests = runner.with([&](Engine& engine) {
            auto fresh = engine.log().since(seen);
            seen = engine.log().total;
            return fresh;
        });
        for (const HostRequest& request : requests) {
            if (!options.quiet) {
                std::cout << "host: " << describe(request) << "\n";
            }
        }
        if (const std::string current = runner.hostPath(); std::exchange(path, current) != current) {
            std::cout << "velmora-dongle: " << readyText(options, current) << "\n";
        }
        std::cout << std::flush;
        if (!last) {
            std::this_thread::sleep_for(kLookEvery);
        }
    }
    if (runner.hungUp()) {
        std::cout << "velmora-dongle: hung up\n";
    }
}

}  // namespace

int main(int argc, char** argv) {
    ProgramOptions options;
    if (const auto exitCode = parseCommandLine(argc, argv, options)) {
        return *exitCode;
    }
    if (options.port.empty() && !hasPseudoTerminals()) {
        std::cerr
            << "velmora-dongle: this system has no pseudo-terminals to make or link; give a serial port (--port)\n";
        return kExitUsage;
    }
    kxorbeta_if::catchStopSignals();
    try {
        std::optional<AccountFile> file;
        if (options.settings.account) {
            file.emplace(options.accountFile, options.settings);
            options.settings.onSettled = [&](const PacketRecord& packet) { file->write(packet); };
        }
        Runner runner(options.settings, lineMaker(options));
        std::cout << "velmora-dongle: " << readyText(options, runner.hostPath()) << std::endl;
        serve(options, runner);
        const std::string problem = runner.problem();
        runner.hangUp();
        printSummary(runner);
        if (file) {
            file->finish();
        }
        if (!problem.empty()) {
            throw std::runtime_error(problem);
        }
    } catch (const std::exception& problem) {
        std::cerr << "velmora-dongle: " << problem.what() << "\n";
        return kExitPort;
    }
    return kExitFine;
}
