#pragma once

#include <functional>
#include <string_view>

#include "session/session.h"

namespace velmora {

/// The right to the handle's one conversation with the dongle; given back when it goes.
class Session::Talk {
  public:
    explicit Talk(Session& session) : session_(session) {}
    ~Talk();
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;

    /// The mutex is held. Why not, unless the conversation is free.
    Outcome take();
    /// Takes it on an open port and calls `start`, all under the mutex: `start` begins a topic, or says why not.
    Outcome begin(const std::function<Outcome()>& start);
    /// Writes what the dongle is asked and waits for the result, telling meanwhile what a scan finds. A time-out comes
    /// without a text, unless it was that of the writing.
    Outcome ask(std::string_view command, Clock::Time deadline, Signal* cancel, const OnFound& onFound = nullptr);

  private:
    Session& session_;
    bool mine_ = false;
    bool asked_ = false;  // the dongle has been asked, and will say something
};

}  // namespace velmora
