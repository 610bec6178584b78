// The library's callbacks, and what they leave for the rest of the program.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "velmora/csv_writer.h"
#include "velmora/stream_counters.h"

namespace velmora {

/// One for the process, because the library's callbacks carry no context. It is never destroyed: a callback may be
/// under way on a thread that outlives main.
class StreamTap {
  public:
    using Clock = std::chrono::steady_clock;

    struct Event {
        unsigned code;
        unsigned value;
    };
    struct Look {
        StreamCounters counters;
        double seconds = 0;          ///< since begin
        double silentSeconds = 0;    ///< since the last data, or since begin
        double lastDataSeconds = 0;  ///< from begin to the last data; 0 when there was none
        bool anyData = false;
    };

    static StreamTap& instance();

    /// Makes the library call this.
    void install();
    /// Starts counting from nothing, and writing samples to `csv` unless it is null. It must live until end.
    void begin(CsvWriter* csv);
    /// Stops both; no callback uses the writer after that.
    void end();
    Look look() const;
    /// The events since the last call.
    std::vector<Event> takeEvents();

  private:
    StreamTap() = default;

    void onRaw(int device, int channel, const int* samples, int count);
    void onPost();
    void onBattery(int device, unsigned level, unsigned value);
    void onEvent(unsigned code, unsigned value);
    bool counts();

    mutable std::mutex mutex_;
    bool counting_ = false;
    CsvWriter* csv_ = nullptr;
    StreamStatistics statistics_;
    Clock::time_point begin_;
    std::optional<Clock::time_point> lastData_;
    std::vector<Event> events_;
};

}  // namespace velmora
