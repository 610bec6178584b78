#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "dongle/dongle_engine.h"
#include "link/port.h"
#include "support/virtual_clock.h"

namespace test {

/// A virtual dongle and the host's port to it, on a line in memory and on virtual time. The dongle's bytes arrive at
/// the moment at which it writes them, with the gaps that it asks for; reading keeps the rules of Port. Without a
/// dongle the line is silent, and a port that was never opened or is closed behaves like a closed serial port.
class VirtualLine : public kxorbeta_if::Port, private VirtualClock::Source {
  public:
    explicit VirtualLine(VirtualClock& clock);

    /// Puts a dongle on the line and opens the host's port.
    void plug(dongle::Settings settings);

    ~VirtualLine() override;

    bool isOpen() const override;
    Result open(const char* path, std::uint32_t baud, int dataBits, int parity, int stopBits) override;
    int systemError() const override { return 0; }
    int read(void* buffer, std::uint32_t maxBytes, std::uint32_t timeoutMs) override;
    int readAvailable(void* buffer, std::uint32_t maxBytes, kxorbeta_if::Clock::Time deadline) override;
    int write(const void* data, std::size_t length, kxorbeta_if::Clock::Time deadline,
              const std::atomic<std::uint32_t>* stop) override;
    void wake() override;
    void close() override;

    /// Calls `use` with the dongle, whose time is the present. Any thread; time stands still meanwhile.
    template <typename Use>
    auto with(Use use) {
        const auto lock = clock_.lock();
        advance(clock_.nowLocked());
        return use(*engine_);
    }

    /// Beyond that a read ends, wherever in a frame that is. Set before the port is in use.
    std::size_t largestRead = SIZE_MAX;

    /// What every write of the host was, in order.
    std::vector<std::string> hostWrites();

  private:
    using Time = kxorbeta_if::Clock::Time;

    std::optional<Time> nextDue() override;
    void advance(Time now) override;
    int take(VirtualClock::Lock& lock, void* buffer, std::uint32_t maxBytes, Time deadline, bool wakeable);
    bool hungUp() const { return engine_ != nullptr && engine_->hungUp(); }
    dongle::Time dongleTime(Time now) const { return now - start_; }

    VirtualClock& clock_;
    Time start_{};
    std::unique_ptr<dongle::Engine> engine_;
    bool open_ = false;
    bool woken_ = false;
    std::deque<dongle::Write> writes_;  // the dongle's, not yet on the line
    Time lineFree_{};                   // when the next write may begin
    dongle::Time lastGap_{0};
    std::deque<std::uint8_t> arrived_;
    std::vector<std::string> hostWrites_;
};

}  // namespace test
