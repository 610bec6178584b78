// A long session of four dongles with sixteen headsets each, on full lines without gaps, with losses, repetitions, cut
// frames, headsets that drop out and rejoin, restarts and unpluggings, and of a fifth with six headsets, two of which
// rejoin under another index, for which only it has room:
//     velmora_soak_program SECONDS [CORRUPT]
// Every packet that a dongle has put on the line as a whole, and that did not go away with the port, has to be
// delivered once. CORRUPT is the probability that a byte of a frame is wrong; the difference is then at most what the
// damage can have cost. Watches that memory stays flat. Prints its figures; exit code 0 when all holds.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dongle/account.h"
#include "dongle/dongle_runner.h"
#include "dongle/port_link.h"
#include "environment_fixture.h"
#include "session/session.h"
#include "support/process_memory.h"
#include "support/working_folder.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kDongles = 5;
constexpr std::uint64_t kPacketBytes = 242;    // with the shortest header
constexpr std::uint64_t kGrowth = 16U << 20U;  // of memory, over the whole of it
#ifdef VELMORA_SANITIZED
constexpr bool kMemoryIsOurs = false;  // a sanitizer keeps what has been given back, and books of every access
#else
constexpr bool kMemoryIsOurs = true;
#endif

class Pair {
  public:
    Pair(const std::filesystem::path& folder, int number, double corrupt) {
        dongle::Settings settings = dongle::defaultSettings(number < 4 ? 16 : 6);
        settings.account = true;
        settings.onSettled = [this](const dongle::PacketRecord& packet) { judge(packet); };
        settings.replies.connectDuration = 3ms;
        settings.line.gaps = false;
        settings.line.dataDuringText = true;
        settings.faults.seed = static_cast<std::uint64_t>(number) + 1;
        settings.faults.lose = 0.003;
        settings.faults.repeat = 0.003;
        settings.faults.split = 0.1;
        settings.faults.corrupt = corrupt;
        settings.faults.restartEvery = 5s + number * 300ms;
        settings.faults.replugEvery = 7s + number * 700ms;
        for (dongle::HeadsetSettings& headset : settings.headsets) {
            headset.sampleRate = 640;  // all of them, nine tenths of what the line carries
        }
        for (std::size_t i = 0; i < settings.headsets.size(); i += 5) {
            settings.headsets[i].disconnectAfter = 2s + number * 100ms;
            settings.headsets[i].rejoinAfter = 500ms;
            if (number == 4) {
                settings.headsets[i].rejoinIndex = 10 + static_cast<int>(i);
            }
        }
        // A name of its own: the number of a terminal that went is soon another one's.
        const std::string port = folder / ("dongle" + std::to_string(number));
        runner_ = std::make_unique<dongle::Runner>(settings, [port] { return dongle::makeLinkedTerminal(port); });
        machine_.plug(port, std::to_string(number));
        wanted_ = test::everybody(settings);
        session_ = std::make_unique<velmora::Session>(machine_.environment(), velmora::Settings{});
        if (!session_->open(port).ok() || !session_->start(nullptr, nullptr).ok()) {
            std::abort();
        }
        thread_ = std::thread([this] { run(); });
    }

    /// Whether all was delivered.
    bool finish(int number) {
        stop_ = true;
        thread_.join();
        session_->dropAll(true);
        while (runner_->with([](dongle::Engine& e) { return e.account()->sum().waiting; }) > 0) {
            std::this_thread::sleep_for(10ms);
        }
        while (take(200) > 0) {
        }
        dongle::PacketTotals sent;
        std::uint64_t harmful = 0, cut = 0;
        runner_->with([&](dongle::Engine& e) {
            sent = e.account()->sum();
            harmful = harmful_;
            cut = cut_;
        });
        const velmora_statistics seen = session_->statistics();
        // What the system threw away with the port before either end could have it; the dongle takes that for read.
        const dongle::RunnerCounters line = runner_->counters();
        const std::uint64_t cutOff = line.bytesWritten - line.bytesUnread - seen.bytes;
        // A damaged frame is delivered or not, as its byte has it, and may cost the one whose place it seems to take.
        // What is thrown away begins and ends inside packets. A packet that was cut short takes what follows for its
        // own rest, if the machine is so busy that no pause tells them apart.
        const auto gone = static_cast<std::uint64_t>(events_[VELMORA_EVENT_GONE]);
        const std::uint64_t slack = 2 * harmful + 2 * cut + cutOff / kPacketBytes + (cutOff > 0 ? gone : 0);
        const bool good =
            delivered_ + slack >= sent.whole && delivered_ <= sent.whole + sent.damaged + cut && dropped_ == 0;
        std::cout << "dongle " << number << ": " << sent.produced << " packets, " << sent.lost << " lost, "
                  << sent.dropped << " dropped, " << sent.unread << " unread, " << sent.damaged << " damaged, "
                  << sent.whole << " whole; delivered " << delivered_ << ", harmful damage " << harmful
                  << ", cut short " << cut << "; gone " << gone << ", restarted " << events_[VELMORA_EVENT_RESTARTED]
                  << ", cut off " << cutOff << " bytes, stray " << seen.stray_bytes << (good ? ": good" : ": WRONG")
                  << std::endl;
        return good;
    }

  private:
    void judge(const dongle::PacketRecord& packet) {
        using Part = dongle::FramePart;
        for (std::size_t copy = 0; copy < packet.copies; ++copy) {
            const Part part = packet.sent[copy].damagedPart;
            const bool harmless =
                part == Part::None || part == Part::Sample || part == Part::Unused || part == Part::Content;
            harmful_ += harmless ? 0 : 1;
            cut_ += packet.sent[copy].taken > 0 && packet.sent[copy].dropped > 0 ? 1 : 0;
        }
    }

    std::size_t take(int timeoutMs) {
        std::size_t got = 0;
        status_ = session_->read(records_.data(), sizeof records_[0], records_.size(), 40, timeoutMs, nullptr, got);
        for (std::size_t i = 0; i < got; ++i) {
            const velmora_record& record = records_[i];
            delivered_ += record.kind == VELMORA_RAW ? 1 : 0;
            dropped_ += record.dropped;
            if (record.kind == VELMORA_EVENT) {
                ++events_.at(record.code);
                again_ |= record.code == VELMORA_EVENT_RESTARTED;
            }
        }
        return got;
    }

    void run() {
        while (!stop_) {
            if (again_ && session_->reopen(velmora::deadlineIn(200), nullptr).ok()) {
                std::vector<velmora_wanted> wanted = wanted_;
                const auto status = session_->connect(wanted, true, velmora::deadlineIn(2000), nullptr).status;
                again_ = status != VELMORA_OK && status != VELMORA_NOT_CONNECTED;
            }
            take(50);
            again_ |= status_ == VELMORA_GONE;
        }
    }

    std::vector<velmora_wanted> wanted_;
    std::vector<velmora_record> records_{std::vector<velmora_record>(512)};
    velmora_status status_ = VELMORA_OK;
    bool again_ = true;
    std::uint64_t delivered_ = 0, dropped_ = 0;
    std::uint64_t harmful_ = 0, cut_ = 0;  // of the runner's thread
    std::array<int, 16> events_{};
    std::atomic<bool> stop_{false};
    test::FakeMachine machine_;
    std::unique_ptr<dongle::Runner> runner_;
    std::unique_ptr<velmora::Session> session_;
    std::thread thread_;
};

}  // namespace

int main(int argc, char** argv) {
    const std::chrono::seconds howLong(argc > 1 ? std::atoi(argv[1]) : 60);
    const double corrupt = argc > 2 ? std::atof(argv[2]) : 0;
    const test::WorkingFolder folder;
    std::vector<std::unique_ptr<Pair>> pairs;
    for (int number = 0; number < kDongles; ++number) {
        pairs.push_back(std::make_unique<Pair>(folder.path(), number, corrupt));
    }
    std::this_thread::sleep_for(std::min(howLong / 3, 15s));  // until every part of the queues has been used
    const std::uint64_t before = test::processMemory();
    std::this_thread::sleep_for(howLong - std::min(howLong / 3, 15s));
    const std::uint64_t after = test::processMemory();
    bool good = after < before + kGrowth || !kMemoryIsOurs;
    std::cout << "memory: " << before << ", then " << after << (good ? " bytes: good" : " bytes: WRONG") << std::endl;
    for (int number = 0; number < kDongles; ++number) {
        good &= pairs[static_cast<std::size_t>(number)]->finish(number);
    }
    return good ? 0 : 1;
}
