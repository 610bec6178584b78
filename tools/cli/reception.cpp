#include "cli/reception.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "cli/failure.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kTick = 100ms;
constexpr std::size_t kBatch = 256;
constexpr double kMostSilence = 3;
constexpr std::int64_t kHeldUp = 1'000'000'000;  // nanoseconds, ten times as long as a turn takes
// A headset that comes back by itself does so within moments.
constexpr double kAllLeft = 1;

std::vector<Headset> connectedOf(Connection& connection) {
    std::vector<Headset> connected;
    for (const Headset& headset : connection.dongle().headsets()) {
        for (const Wanted& wanted : connection.headsets()) {
            if (wanted.status == VELMORA_OK && wanted.headset == headset.number) {
                connected.push_back(headset);
            }
        }
    }
    return connected;
}

}  // namespace

Reception::Reception(Connection& connection, Reporter& reporter, ReceptionOptions options)
    : connection_(connection),
      reporter_(reporter),
      options_(options),
      started_(connection.dongle().start()),
      headsets_(connectedOf(connection)),
      watch_(headsets_, started_.time),
      lastTurn_(started_.time),
      attentiveSince_(started_.time) {}

Reception::~Reception() {
    if (again_.valid()) {
        userStop().raise();  // what waits for the dongle ends at once
        again_.wait();
    }
}

double Reception::seconds() const {
    return static_cast<double>(velmora_now() - started_.time) * 1e-9;
}

std::vector<HeadsetView> Reception::views() {
    watch_.update([this](int number) { return connection_.dongle().statistics(number); });
    return watch_.views(velmora_now());
}

void Reception::run(const Sink& sink) {
    std::vector<Record> records(kBatch);
    const Notice notice = [this](const std::string& text) { reporter_.say(text); };
    const auto take = [&](std::span<const Record> batch) {
        watch_.take(batch, notice);
        anyData_ |=
            std::any_of(batch.begin(), batch.end(), [](const Record& record) { return record.kind == VELMORA_RAW; });
        sink.take(batch);
    };
    while (!options_.seconds || seconds() < *options_.seconds) {
        const Batch batch = connection_.dongle().read(records, records.size(), options_.pause, &userStop());
        take(batch.records);
        sink.tick();
        if (userStop().raised()) {
            break;
        }
        if (again_.valid()) {
            connectAgain();
        } else if (const auto text = trouble(batch.status, batch.records.size() == records.size())) {
            if (!options_.keepGoing) {
                throw Failure(kNoData, *text + ", and start this command again");
            }
            reporter_.warn(*text + "; this goes on as soon as they are back");
            connectAgain();
        }
        if (batch.status == VELMORA_GONE) {
            std::this_thread::sleep_for(kTick);  // reading does not wait then
        }
    }
    // What came before the end belongs to it, however far this program is behind; its reading thread gets a moment.
    std::this_thread::sleep_for(kTick);
    if (!again_.valid()) {
        connection_.dongle().stop();
    }
    for (bool more = true; more;) {
        const Batch rest = connection_.dongle().read(records, 0, 0ms);
        take(rest.records);
        sink.tick();
        more = rest.records.size() == records.size();
    }
}

/// What has ended the data, and the act that mends it. `more`: there may be records that have not been read yet.
std::optional<std::string> Reception::trouble(velmora_status status, bool more) {
    const std::int64_t now = velmora_now();
    if (now - std::exchange(lastTurn_, now) > kHeldUp) {
        attentiveSince_ = now;  // it was stopped or waited for its disk: this program was silent, not the headsets
    }
    const double silent =
        more ? 0 : std::min(watch_.silentSeconds(now), static_cast<double>(now - attentiveSince_) * 1e-9);
    const bool restarted = watch_.takeRestarted();
    if (status == VELMORA_GONE) {
        return "the dongle was unplugged or its port hung up; plug it in";
    }
    if (restarted) {
        return "the dongle has forgotten its headsets; see that its plug sits well";
    }
    if (!watch_.anyConnected() && silent > kAllLeft) {
        return leftText() + "; see that it is on, charged and near";
    }
    if (silent > kMostSilence) {
        return anyData_ ? "no data for " + fixed(kMostSilence, 0) +
                              " s though the dongle is there; unplug it, plug it in again"
                        : "connected, but no data has come; see that the headset measures";
    }
    return std::nullopt;
}

std::string Reception::leftText() const {
    std::string text;
    for (const Headset& headset : headsets_) {
        text += (text.empty() ? "" : ", ") + headsetText(headset.address, headset.name);
    }
    return text + " left";
}

/// Begins that, or looks whether it has come to its end.
void Reception::connectAgain() {
    if (!again_.valid()) {
        again_ = std::async(std::launch::async, [this] {
            do {
                connection_.dongle().reopen({}, &userStop());
            } while (!connection_.connectAgain());
        });
    } else if (again_.wait_for(0s) == std::future_status::ready) {
        again_.get();
        watch_.beginAgain(connection_.dongle().headsets(), velmora_now());
        reporter_.say("connected again");
    }
}

void checkLosses(std::span<const HeadsetView> views, double mostPercent) {
    for (const HeadsetView& view : views) {
        const double percent = lossPercent(view.packets, view.lost + view.dropped);
        if (percent > mostPercent) {
            const char* const act = view.dropped > view.lost
                                        ? "this computer did not keep up; end other programs"
                                        : "bring headset and dongle nearer to each other, away from other radios";
            throw Failure(kLosses, headsetText(view.address, view.name) + " lost " + fixed(percent, 1) +
                                       " % of its packets, more than the " + fixed(mostPercent, 1) +
                                       " % of --max-loss: " + act);
        }
    }
}

}  // namespace velmora::cli
