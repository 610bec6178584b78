// What the program can do. Each throws Failure when it did not succeed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "velmora/session.h"

namespace velmora {

struct StreamOptions {
    HeadsetChoice choice;
    std::optional<double> seconds;  ///< nothing: until Ctrl-C
    std::string csvFile;            ///< empty: none
    bool quiet = false;
};

struct SendOptions {
    HeadsetChoice choice;
    std::uint32_t target = 0;
    unsigned char command = 0;
    std::vector<unsigned char> payload;
};

/// A stream that brings nothing for that long has ended. A headset's data comes many times a second.
inline constexpr double kSilenceSeconds = 3;
/// What may be the matter then, and what the user can do.
std::string silenceText();

void findCommand(Session& session);
void scanCommand(Session& session, const std::string& port);
void streamCommand(Session& session, const StreamOptions& options);
void sendCommand(Session& session, const SendOptions& options);

}  // namespace velmora
