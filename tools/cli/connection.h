// One run's use of a dongle: its port, the headsets that the user wants, and their end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/reporter.h"
#include "cli/values.h"

namespace velmora::cli {

/// What the user says about port and headsets.
struct Choice {
    std::string port;  ///< empty: search
    Selection headsets;
    std::optional<int> option;  ///< set: the wanted ones are addresses, and are connected without a scan
};

/// Every port of this machine, with a status of VELMORA_OK for those that have a dongle. Where no port is on USB all
/// are asked, as with `allPorts`. Throws Failure when the user interrupts it.
std::vector<Port> findDongles(bool allPorts, std::string& problem);
/// The port of the only dongle. Throws Failure when there is none, or more than one.
std::string findPort(Reporter& reporter);

/// All functions throw Failure or Error.
class Connection {
  public:
    /// Opens the port.
    Connection(const std::string& port, Reporter& reporter);
    /// Drops what this has connected.
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    Dongle& dongle() { return dongle_; }
    const std::string& port() const { return port_; }

    /// Looks for headsets, telling each.
    std::vector<Found> scan();
    /// Whether headsets send that an ended run left. Waits until that would have shown, unless it shows at once.
    bool headsetsLeft();
    /// Scans, chooses and connects; headsets that an ended run left are dropped first if they are in the way.
    void connect(const Choice& choice);
    /// Connects these, which a scan found.
    void connect(std::vector<Found> chosen);
    /// Connects the same ones again, after a restart or when they were lost. False when none came.
    bool connectAgain();
    /// Tells the dongle to drop all headsets.
    void dropAll();
    /// Leaves the headsets connected at the end.
    void keep() { drop_ = false; }

    /// What connect() connected.
    const std::vector<Wanted>& headsets() const { return wanted_; }

  private:
    std::vector<Found> scanFor(const Choice& choice);
    bool anyConnected();
    void dropLeft();
    void awaitQuiet();

    Reporter& reporter_;
    const std::string port_;
    Dongle dongle_;
    const std::int64_t opened_;
    std::vector<Wanted> wanted_;
    std::vector<Found> chosen_;
    bool drop_ = false;
};

}  // namespace velmora::cli
