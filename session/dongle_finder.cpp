#include "session/dongle_finder.h"

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "base/clock.h"
#include "protocol/commands.h"
#include "session/stream_reader.h"

namespace velmora {
namespace {

using kxorbeta_if::Port;
using kxorbeta_if::systemClock;
using namespace std::chrono_literals;

constexpr int kPings = 2;
constexpr auto kAnswerTime = 500ms;

void tell(velmora_port& port, const Outcome& outcome) {
    port.status = outcome.status;
    port.system_code = outcome.systemCode;
    std::memset(port.text, 0, sizeof port.text);
    copyText(port.text, outcome.text);
}

/// One port that is pinged, on a thread of its own.
class Probe {
  public:
    Probe(const Environment& environment, std::string path, Signal& ended)
        : environment_(environment), path_(std::move(path)), ended_(ended), port_(environment.makePort()) {
        thread_ = std::thread([this] { run(); });
    }
    ~Probe() {
        giveUp();
        thread_.join();
    }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;

    bool over() const { return over_; }
    void giveUp() {
        givenUp_ = 1;
        port_->wake();
    }
    const Outcome& outcome() const { return outcome_; }  ///< once it is over

    // What the reader finds.
    void frame(int, protocol::FrameKind, const std::uint8_t*, std::int64_t) {}
    void text(TextKind kind, std::string_view, std::int64_t) { answered_ |= kind == TextKind::kPong; }

  private:
    void run() noexcept {
        try {
            outcome_ = ping();
        } catch (...) {
            outcome_ = {VELMORA_NO_MEMORY};
        }
        port_->restoreSettings();
        port_->close();
        over_ = true;
        ended_.set();
    }

    Outcome ping() {
        if (Outcome opened = openForDongle(*port_, path_, environment_); !opened.ok()) {
            return opened;
        }
        const std::unique_ptr<StreamReader> reader = std::make_unique<StreamReader>();
        Clock::Time asked;
        for (int i = 0; i < kPings && !answered_ && givenUp_ == 0; ++i) {
            asked = systemClock().now();
            const auto deadline = asked + kAnswerTime;
            port_->write(protocol::kPing.data(), protocol::kPing.size(), deadline, &givenUp_);
            while (!answered_ && givenUp_ == 0 && systemClock().now() < deadline) {
                const auto room = reader->room();
                const int count = port_->readAvailable(room.data(), static_cast<std::uint32_t>(room.size()), deadline);
                if (count < 0) {
                    return failure(VELMORA_FAILED, "The port went away while it was asked.");
                }
                const auto now = systemClock().now().time_since_epoch();
                reader->received(static_cast<std::size_t>(count),
                                 std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(), false, *this);
            }
        }
        if (answered_) {
            const auto taken = std::chrono::ceil<std::chrono::milliseconds>(systemClock().now() - asked);
            return {VELMORA_OK, 0, "A dongle answered within " + std::to_string(taken.count()) + " ms."};
        }
        const std::uint64_t bytes = reader->counts().bytes;
        return failure(VELMORA_NOT_A_DONGLE,
                       bytes == 0 ? "It stayed silent when it was asked twice whether it is a dongle."
                                  : "It sent " + std::to_string(bytes) + " bytes, but not the answer of a dongle.");
    }

    const Environment& environment_;
    const std::string path_;
    Signal& ended_;
    const std::unique_ptr<Port> port_;
    Outcome outcome_;
    bool answered_ = false;
    std::atomic<std::uint32_t> givenUp_{0};
    std::atomic<bool> over_{false};
    std::thread thread_;
};

}  // namespace

Outcome findDongles(const Environment& environment, bool allPorts, Signal* cancel, std::vector<velmora_port>& ports) {
    ports = environment.listPorts(Environment::Holders::kLook);
    Signal ended;
    std::vector<std::unique_ptr<Probe>> probes(ports.size());
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (ports[i].status != VELMORA_OK) {
            continue;  // the list says why
        }
        if (!allPorts && (ports[i].flags & VELMORA_PORT_USB) == 0) {
            tell(ports[i], failure(VELMORA_INVALID, "It is not on USB, where dongles are, and was not asked."));
            continue;
        }
        probes[i] = std::make_unique<Probe>(environment, ports[i].path, ended);
    }
    const auto allOver = [&] {
        for (const auto& probe : probes) {
            if (probe != nullptr && !probe->over()) {
                return false;
            }
        }
        return true;
    };
    while (!allOver() && (cancel == nullptr || !cancel->isSet())) {
        waitForEither(ended, cancel, Clock::Time::max());
    }
    if (!allOver()) {
        for (std::size_t i = 0; i < ports.size(); ++i) {
            if (probes[i] != nullptr) {
                const bool over = probes[i]->over();
                probes[i]->giveUp();
                tell(ports[i], over ? probes[i]->outcome() : cancelled());
            }
        }
        return failure(VELMORA_CANCELLED, "The search was cancelled.");  // the probes end with their objects
    }
    bool found = false;
    std::string reasons;
    for (std::size_t i = 0; i < ports.size(); ++i) {
        if (probes[i] != nullptr) {
            tell(ports[i], probes[i]->outcome());
        }
        found |= ports[i].status == VELMORA_OK;
        if (ports[i].status != VELMORA_OK && ports[i].status != VELMORA_INVALID) {
            reasons += std::string(" ") + ports[i].path + ": " + ports[i].text;
        }
    }
    if (found) {
        return {};
    }
    return failure(VELMORA_NOT_FOUND, reasons.empty() ? "There is no USB serial port. Plug the dongle in."
                                                      : "No port has a dongle." + reasons);
}

}  // namespace velmora
