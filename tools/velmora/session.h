// One run's use of the library: in order, interruptible, and ended within a bound.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "velmora/stream_text.h"

namespace velmora {

/// Which port and which headset the user wants.
struct HeadsetChoice {
    std::string port;           ///< empty: search
    std::string address;        ///< empty: the first that a scan finds
    std::optional<int> option;  ///< nothing: as the scan reports it, 0 without a scan
};

/// The calls throw Failure. Those that block run on threads of their own, so that Ctrl-C is heard meanwhile.
class Session {
  public:
    /// Initialises the library. `quiet`: no progress on standard error.
    explicit Session(bool quiet);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Searches the dongle.
    std::string findPort();
    /// Opens that port; an empty name searches first.
    void openPort(const std::string& name);
    std::vector<Headset> scan();
    /// Opens the port, connects the headset and starts collection. Returns the headset's index at the dongle, nothing
    /// when no event told it.
    std::optional<unsigned> connect(const HeadsetChoice& choice);

    /// Drops the headset, closes the port and ends the library. False when a thread is still inside the library: then
    /// the process must not end by returning from main.
    bool close();

    void say(const std::string& text) const;

  private:
    enum class Abandoned { Nothing, Search, PortUser };

    Headset chooseHeadset(const HeadsetChoice& choice);

    bool quiet_;
    Abandoned abandoned_ = Abandoned::Nothing;
};

}  // namespace velmora
