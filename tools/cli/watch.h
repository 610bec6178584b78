// What arrives from each headset, as people want to see it. No clock, no dongle: records go in, views come out.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/velmora.hpp"

namespace velmora::cli {

/// One headset at one moment.
struct HeadsetView {
    std::string address;
    std::string name;
    int index = -1;  ///< at the dongle, the last it had
    bool connected = true;
    double silentSeconds = 0;  ///< since its last raw packet, or since the start
    int channels = 0;
    double slowest = 0;  ///< samples per second of the slowest channel, 0: not known yet
    double fastest = 0;
    std::uint64_t packets = 0;
    std::uint64_t lost = 0;     ///< by the line
    std::uint64_t dropped = 0;  ///< by this computer
    std::uint64_t repeated = 0;
    int battery = -1;  ///< last level, -1: none came
};

/// A headset or a dongle that goes is told with these words.
using Notice = std::function<void(const std::string& text)>;
/// The library's counts for a headset's number.
using StatisticsOf = std::function<HeadsetStatistics(int number)>;

class Watch {
  public:
    /// Follows these headsets, from `now` on.
    Watch(std::span<const Headset> headsets, std::int64_t now);

    /// What a read brought, in order.
    void take(std::span<const Record> records, const Notice& notice);
    /// Looks at the library's counts.
    void update(const StatisticsOf& statistics);

    std::vector<HeadsetView> views(std::int64_t now) const;
    /// Since anything came from any of them.
    double silentSeconds(std::int64_t now) const;
    bool anyConnected() const;
    /// The dongle has restarted since the last call.
    bool takeRestarted();
    /// Headsets have been connected anew: the silence begins here.
    void beginAgain(std::span<const Headset> headsets, std::int64_t now);

  private:
    struct Followed {
        int number;
        HeadsetView view;
        std::int64_t last;
        std::int64_t first = 0;      // packet since it connected; 0: none yet
        std::uint32_t channels = 0;  // a bit for each that sent single-channel packets
        int multi = 0;               // channels in its last packet of several
    };

    Followed* find(int number);
    void event(const Record& record, Followed* headset, const Notice& notice);

    std::vector<Followed> followed_;
    std::int64_t lastData_;
    bool restarted_ = false;
};

/// The views as a table for a terminal of 80 columns, with titles.
std::vector<std::string> tableLines(std::span<const HeadsetView> views, double seconds, std::string_view port);
/// A view as a line for a log, with the seconds since the start.
std::string logLine(const HeadsetView& view, double seconds);
/// What came in the end, in a line.
std::string summaryLine(const HeadsetView& view, double seconds);
/// The same for scripts, with what the line did.
std::string summaryJson(std::span<const HeadsetView> views, double seconds, const Statistics& line);

}  // namespace velmora::cli
