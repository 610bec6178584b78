#include "velmora/session.h"

#include <VelmoraSDK.h>

#include <future>
#include <iostream>
#include <thread>

#include "velmora/failure.h"
#include "velmora/stream_tap.h"
#include "velmora/terminal.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kLookEvery = 50ms;
// What an orderly end may take. Far more than a healthy line needs; with a command left in the queue of a link thread
// that has stopped, the library alone would wait 11 seconds.
constexpr auto kGrace = 5s;
// A dongle that is connecting a headset gets that long to finish after Ctrl-C, because only then can it be told to drop
// it.
constexpr auto kConnectionGrace = 10s;

/// Runs `call` on a thread of its own and waits for its result, but no longer than until `giveUp` says so; then the
/// thread is left to itself, which is why `call` must own what it uses.
template <typename Call>
auto waitFor(Call call, const std::function<bool()>& giveUp) -> std::optional<decltype(call())> {
    std::packaged_task<decltype(call())()> task(std::move(call));
    auto result = task.get_future();
    std::thread(std::move(task)).detach();
    while (result.wait_for(kLookEvery) != std::future_status::ready) {
        if (giveUp())
            return std::nullopt;
    }
    return result.get();
}

bool stopAsked() {
    return stopRequests() > 0;
}

Failure interrupted() {
    return {kExitInterrupted, "interrupted"};
}

/// Gives up on a connection attempt when the user insists, or the dongle does not end it.
class ConnectionPatience {
  public:
    bool over() {
        if (!asked_ && stopAsked()) {
            asked_ = Clock::now();
            std::cerr << "velmora: waiting for the dongle to end its attempt, so that it can be told to drop the "
                         "headset; press Ctrl-C again to leave at once\n";
        }
        return stopRequests() > 1 || (asked_ && Clock::now() - *asked_ > kConnectionGrace);
    }

  private:
    std::optional<Clock::time_point> asked_;
};

std::optional<unsigned> connectedIndex() {
    std::optional<unsigned> index;
    for (const StreamTap::Event& event : StreamTap::instance().takeEvents()) {
        if (event.code == 2)
            index = event.value;
    }
    return index;
}

}  // namespace

Session::Session(bool quiet) : quiet_(quiet) {
    StreamTap::instance().install();
    if (SDK_Init() == 0)
        throw Failure(kExitDongle, "the library could not be initialised");
}

void Session::say(const std::string& text) const {
    if (!quiet_)
        std::cerr << text << std::endl;
}

std::string Session::findPort() {
    say("searching the dongle (up to 5 seconds for each port that does not answer)");
    const auto port = waitFor([] { return std::string(SDK_CheckPort()); }, stopAsked);
    if (!port) {
        abandoned_ = Abandoned::Search;
        throw interrupted();
    }
    if (port->empty())
        throw Failure(kExitDongle,
                      seeLog("no dongle answered on any port (is it plugged in, and may this user open its port?)"));
    return *port;
}

void Session::openPort(const std::string& name) {
    const std::string port = name.empty() ? findPort() : name;
    if (SDK_ConnectPort(port.c_str()) == 0)
        throw Failure(kExitPort, seeLog("port " + port + " cannot be opened"));
    say("port " + port + " is open");
}

std::vector<Headset> Session::scan() {
    say("scanning (about 20 seconds when the dongle does not answer)");
    const auto done = waitFor(SDK_ScanDevices, stopAsked);
    if (!done) {
        abandoned_ = Abandoned::PortUser;
        throw interrupted();
    }
    if (*done == 0)
        throw Failure(kExitDongle, seeLog("the dongle did not report the end of its scan (is this its port?)"));
    std::vector<Headset> headsets;
    DeviceInfo info;
    for (int i = 0; SDK_GetScanDevice(i, &info) == 1; ++i)
        headsets.push_back({info.address, info.name, info.option});
    if (headsets.empty())
        throw Failure(kExitDongle, "the scan found no headset; is it switched on, near, and not connected elsewhere?");
    return headsets;
}

Headset Session::chooseHeadset(const HeadsetChoice& choice) {
    Headset headset{choice.address, "", 0};
    if (choice.address.empty())
        headset = scan().front();
    headset.option = choice.option.value_or(headset.option);
    return headset;
}

std::optional<unsigned> Session::connect(const HeadsetChoice& choice) {
    openPort(choice.port);
    const Headset headset = chooseHeadset(choice);
    if (stopAsked())
        throw interrupted();
    const std::string text = printable(headset.address) + (headset.name.empty() ? "" : " ") + printable(headset.name);
    say("connecting " + text + " (100 seconds when the dongle does not answer)");
    ConnectionPatience patience;
    const auto connected = waitFor([headset] { return SDK_ConnectDevice(headset.address.c_str(), headset.option); },
                                   [&] { return patience.over(); });
    if (!connected) {
        abandoned_ = Abandoned::PortUser;
        throw Failure(kExitInterrupted,
                      "interrupted while the dongle was connecting; it may keep the headset until it is unplugged");
    }
    if (stopAsked())
        throw interrupted();
    if (*connected == 0)
        throw Failure(kExitNotConnected, seeLog("headset " + text + " was not connected"));
    const auto index = connectedIndex();
    say("connected" + (index ? " as device " + std::to_string(*index) : std::string()));
    if (SDK_StartDataCollection() == 0)
        throw Failure(kExitNotConnected, seeLog("the headset was lost right after the connection"));
    return index;
}

bool Session::close() {
    // The search has a port of its own and must not meet the library's end; the system closes that port.
    if (abandoned_ == Abandoned::Search)
        return false;
    const bool portInUse = abandoned_ == Abandoned::PortUser;
    const int asked = stopRequests();
    const auto latest = Clock::now() + kGrace;
    // Cleaning up tells the dongle to drop every headset, also while collection is off. A call that was left behind has
    // no headset to drop, but may get one while the clean-up runs: then only the port is closed, which ends that call.
    const auto end = [portInUse] {
        portInUse ? SDK_DisconnectPort() : SDK_Cleanup();
        return true;
    };
    const bool ended = waitFor(end, [&] { return Clock::now() > latest || stopRequests() > asked; }).has_value();
    if (!ended)
        std::cerr << "velmora: the library did not end in time; leaving without it\n";
    return ended && !portInUse;
}

}  // namespace velmora
