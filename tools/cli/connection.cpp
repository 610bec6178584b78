#include "cli/connection.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "cli/failure.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMostPorts = 512;
constexpr auto kScanTime = 30s;
// A dongle tries for up to 100 seconds for each headset that is not there.
constexpr auto kConnectTime = 110s;
constexpr std::int64_t kInferenceTime = 2'100'000'000;  // the library takes data within two seconds for left headsets
constexpr std::int64_t kOnTheWay = 300'000'000;
constexpr std::int64_t kLongestWay = 1'500'000'000;

Dongle openPort(const std::string& port) {
    try {
        return Dongle(port);
    } catch (const Error& error) {
        if (error.status() == VELMORA_NOT_FOUND) {
            throw Failure(kNoPort,
                          "there is no port " + port + "; plug the dongle in, and see where it is with: velmora find");
        }
        if (error.status() == VELMORA_FORBIDDEN) {
            throw Failure(kNoPort, std::string(error.what()) + " The command for that: velmora doctor");
        }
        throw Failure(kNoPort, error.what());
    }
}

void pause() {
    if (userStop().raised()) {
        throw Failure(kInterrupted, "interrupted");
    }
    std::this_thread::sleep_for(50ms);
}

}  // namespace

std::vector<Port> findDongles(bool allPorts, std::string& problem) {
    if (!allPorts) {
        const auto known = velmora::ports();
        allPorts = std::none_of(known.begin(), known.end(),
                                [](const Port& port) { return (port.flags & VELMORA_PORT_USB) != 0; });
    }
    velmora_find_options options{};
    options.size = sizeof options;
    options.flags = allPorts ? std::uint32_t{VELMORA_FIND_ALL_PORTS} : 0;
    velmora_error error{};
    error.size = sizeof error;
    std::vector<Port> ports(kMostPorts);
    std::size_t count = 0;
    const velmora_status status =
        velmora_find(&options, ports.data(), sizeof(Port), ports.size(), &count, get(&userStop()), &error);
    if (status != VELMORA_OK && status != VELMORA_NOT_FOUND) {
        throw asFailure(Error(status, error.system_code, error.text));
    }
    ports.resize(std::min(count, ports.size()));
    problem = error.text;
    return ports;
}

std::string findPort(Reporter& reporter) {
    reporter.say("looking for the dongle");
    std::string problem;
    std::vector<std::string> paths;
    bool kept = false;  // somebody or the system keeps us from a port that may have it
    for (const Port& port : findDongles(false, problem)) {
        if (port.status == VELMORA_OK) {
            paths.emplace_back(port.path);
        }
        kept |= port.status == VELMORA_FORBIDDEN || port.status == VELMORA_HELD;
    }
    if (paths.empty()) {
        throw Failure(kept ? kNoPort : kNotDone, problem + " More: velmora doctor");
    }
    if (paths.size() > 1) {
        std::string text;
        for (const std::string& path : paths) {
            text += " " + path;
        }
        throw Failure(kUsage, "there are several dongles; choose one with --port:" + text);
    }
    return paths.front();
}

Connection::Connection(const std::string& port, Reporter& reporter)
    : reporter_(reporter),
      port_(port.empty() ? findPort(reporter) : port),
      dongle_(openPort(port_)),
      opened_(velmora_now()) {}

Connection::~Connection() {
    if (!drop_) {
        return;
    }
    try {
        // Also when nothing is known to be connected: an attempt that was interrupted goes on in the dongle.
        dongle_.dropAll(VELMORA_ALLOW_UNPROVED);
        awaitQuiet();
    } catch (const Error& error) {
        if (error.status() != VELMORA_GONE && error.status() != VELMORA_CLOSED) {
            reporter_.warn(std::string("The headsets could not be dropped. ") + error.what());
        }
    }
}

/// What the dongle had read from the air before it was told comes yet, and the next run would take it for that of
/// headsets which are connected.
void Connection::awaitQuiet() {
    const std::int64_t began = velmora_now();
    std::int64_t since = began;
    for (std::uint64_t bytes = 0; velmora_now() - since < kOnTheWay && velmora_now() - began < kLongestWay;) {
        if (const std::uint64_t now = dongle_.statistics().bytes; now != bytes) {
            bytes = now;
            since = velmora_now();
        }
        std::this_thread::sleep_for(20ms);
    }
}

std::vector<Found> Connection::scan() {
    reporter_.say("scanning on " + port_ + " (up to 20 seconds)");
    return dongle_.scan(kScanTime, &userStop(), [this](const Found& found) {
        reporter_.say("  found " + headsetText(found.address, found.name));
    });
}

bool Connection::headsetsLeft() {
    while (!anyConnected()) {
        if (velmora_now() - opened_ > kInferenceTime) {
            return false;
        }
        pause();
    }
    return true;
}

std::vector<Found> Connection::scanFor(const Choice& choice) {
    std::optional<Failure> failure;
    try {
        const auto found = scan();
        if (!anyConnected()) {
            return choose(found, choice.headsets);
        }
    } catch (const Error& error) {
        if (error.status() != VELMORA_BUSY) {
            throw;
        }
    } catch (const Failure& problem) {
        failure = problem;
    }
    if (failure && (failure->code() != kNotDone || !headsetsLeft())) {
        throw *failure;
    }
    dropLeft();
    return choose(scan(), choice.headsets);
}

void Connection::connect(const Choice& choice) {
    if (!choice.option) {
        connect(scanFor(choice));
        return;
    }
    std::vector<Found> chosen;
    for (const std::string& wanted : choice.headsets.wanted) {
        Found headset{};
        const std::string address = parseAddress(wanted).value_or("");
        std::memcpy(headset.address, address.data(), std::min(address.size(), sizeof headset.address - 1));
        headset.option = *choice.option;
        chosen.push_back(headset);
    }
    if (headsetsLeft()) {
        dropLeft();
    }
    connect(std::move(chosen));
}

void Connection::connect(std::vector<Found> chosen) {
    chosen_ = std::move(chosen);
    wanted_ = std::vector<Wanted>(chosen_.size());
    std::string text;
    for (std::size_t i = 0; i < chosen_.size(); ++i) {
        std::memcpy(wanted_[i].address, chosen_[i].address, sizeof wanted_[i].address);
        wanted_[i].option = chosen_[i].option;
        text += (text.empty() ? "" : ", ") + headsetText(chosen_[i].address, chosen_[i].name);
    }
    reporter_.say("connecting " + text);
    drop_ = true;
    detail::Check check;
    check(velmora_connect(dongle_.get(), wanted_.data(), sizeof(Wanted), wanted_.size(), 0,
                          detail::milliseconds(kConnectTime), get(&userStop()), check.error()));
}

bool Connection::anyConnected() {
    const auto headsets = dongle_.headsets();
    return std::any_of(headsets.begin(), headsets.end(), [](const Headset& headset) { return headset.connected != 0; });
}

void Connection::dropLeft() {
    reporter_.say("headsets of a run that did not end in order still send; the dongle drops them");
    // Data that is on its way yet counts as that of connected headsets, and the dongle's next scan would be refused.
    while (headsetsLeft()) {
        dropAll();
        pause();
    }
}

bool Connection::connectAgain() {
    auto wanted = wanted_;
    try {
        dongle_.dropAll(VELMORA_ALLOW_UNPROVED);
        dongle_.connect(wanted, kConnectTime, &userStop());
    } catch (const Error& error) {
        if (error.status() == VELMORA_CANCELLED) {
            throw;
        }
    }
    return std::any_of(wanted.begin(), wanted.end(),
                       [](const Wanted& headset) { return headset.status == VELMORA_OK; });
}

void Connection::dropAll() {
    dongle_.dropAll(VELMORA_ALLOW_UNPROVED);
}

}  // namespace velmora::cli
