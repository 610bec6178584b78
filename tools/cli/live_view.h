// What the commands show in a browser while they receive.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/reception.h"
#include "cli/values.h"
#include "view/server.h"

namespace velmora::cli {

/// For how long records are collected for somebody who looks on: so that pictures follow each other smoothly.
inline constexpr std::chrono::milliseconds kViewPause{25};

struct ViewSettings {
    view::ServerOptions server;
    bool browser = true;  ///< open it
};

/// Serves what a reception brings. None of its calls waits for a viewer.
class LiveView {
  public:
    /// Starts serving, and tells where. `marks` are those that viewers may set: none without a recording.
    LiveView(const ViewSettings& settings, Reporter& reporter);

    /// The reception has begun.
    void begin(const Reception& reception, bool goesOn, bool recording, const std::vector<Mark>& marks);
    void take(std::span<const Record> records) { feed_.take(records); }
    /// To be called often; tells viewers the state of the headsets once a second.
    void tick(Reception& reception);
    /// The number of the next mark that a viewer has asked for.
    std::optional<std::size_t> nextMark() { return feed_.nextMark(); }
    /// A mark was written.
    void marked(std::int64_t time, const std::string& text);
    /// Why no more comes.
    void end(const std::string& text);

  private:
    Reporter& reporter_;
    view::Feed feed_;
    std::unique_ptr<view::Server> server_;
    std::int64_t due_ = 0;
};

/// Opens the address in the user's browser; false where there is none, or nothing to show one on.
bool openBrowser(const std::string& address);

}  // namespace velmora::cli
