// Samples to a text file, without ever holding up the thread that brings them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

namespace velmora {

/// One row per sample under the titles time,device,channel,sample,value.
class CsvWriter {
  public:
    /// Samples that wait at most: about six seconds of a line that is full.
    static constexpr std::size_t kWaitingSamples = 1U << 19U;

    explicit CsvWriter(std::unique_ptr<std::ostream> out, std::size_t waitingSamples = kWaitingSamples);
    ~CsvWriter();
    CsvWriter(const CsvWriter&) = delete;
    CsvWriter& operator=(const CsvWriter&) = delete;

    /// Takes `count` samples of one channel, the first of which has the number `firstSample`; `stride` values lie from
    /// one to the next. What finds no room is dropped whole and counted. Never waits for the file. Any thread.
    void push(double seconds, int device, int channel, std::uint64_t firstSample, const int* samples, int count,
              int stride);

    /// Writes what waits and ends; later pushes are dropped. False when something could not be written.
    bool close();

    bool failed() const;
    std::uint64_t writtenSamples() const;
    std::uint64_t droppedSamples() const;

  private:
    struct Run {
        double seconds;
        int device;
        int channel;
        std::uint64_t firstSample;
        std::size_t count;
    };
    struct Batch {
        std::vector<Run> runs;
        std::vector<int> samples;
    };

    void work();
    void write(const Batch& batch, std::string& text);

    const std::unique_ptr<std::ostream> out_;
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    Batch waiting_;
    bool closing_ = false;
    bool failed_ = false;
    std::uint64_t written_ = 0;
    std::uint64_t dropped_ = 0;
    std::thread thread_;
};

}  // namespace velmora
