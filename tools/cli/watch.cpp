#include "cli/watch.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "cli/json.h"
#include "cli/text.h"
#include "cli/values.h"

namespace velmora::cli {
namespace {

constexpr double kNanosecond = 1e-9;
// A headset sends a packet at least twice a second unless it is very slow; then its rate is still told.
constexpr double kSilent = 1.5;

// An estimate over less time wobbles by more than a per cent.
constexpr double kSteady = 2;

double secondsBetween(std::int64_t from, std::int64_t to) {
    return to > from ? static_cast<double>(to - from) * kNanosecond : 0;
}

std::string stateText(const HeadsetView& view, const char* unit) {
    if (!view.connected) {
        return "left";
    }
    if (view.silentSeconds > kSilent) {
        return view.silentSeconds < 1000 ? "no data for " + std::to_string(static_cast<long>(view.silentSeconds)) + " s"
                                         : "no data " + timeText(view.silentSeconds);
    }
    return view.fastest > 0 ? rateText(view.channels, view.slowest, view.fastest) + unit : "...";
}

std::string batteryText(const HeadsetView& view) {
    return view.battery < 0 ? "-" : std::to_string(view.battery);
}

}  // namespace

Watch::Watch(std::span<const Headset> headsets, std::int64_t now) : lastData_(now) {
    for (const Headset& headset : headsets) {
        Followed followed{headset.number, {}, now};
        followed.view.address = headset.address;
        followed.view.name = printable(headset.name);
        followed.view.index = headset.index;
        followed.view.connected = headset.connected != 0;
        followed_.push_back(followed);
    }
}

Watch::Followed* Watch::find(int number) {
    const auto found =
        std::find_if(followed_.begin(), followed_.end(), [&](const Followed& one) { return one.number == number; });
    return found == followed_.end() ? nullptr : &*found;
}

void Watch::take(std::span<const Record> records, const Notice& notice) {
    // A dongle that restarts or goes takes all its headsets along, which need not be told one by one.
    const bool all = std::any_of(records.begin(), records.end(), [](const Record& record) {
        return record.kind == VELMORA_EVENT &&
               (record.code == VELMORA_EVENT_RESTARTED || record.code == VELMORA_EVENT_GONE);
    });
    const Notice ofHeadset = all ? Notice([](const std::string&) {}) : notice;
    for (const Record& record : records) {
        Followed* const headset = find(record.headset);
        if (record.kind == VELMORA_EVENT) {
            event(record, headset, headset != nullptr ? ofHeadset : notice);
            continue;
        }
        if (headset == nullptr) {
            continue;
        }
        lastData_ = std::max(lastData_, record.time);
        if (record.kind == VELMORA_RAW) {
            headset->last = record.time;
            headset->first = headset->first == 0 ? record.time : headset->first;
            if ((record.flags & VELMORA_FLAG_MULTI) != 0) {
                headset->multi = record.channels;
            } else {
                headset->channels |= 1U << record.channel;
            }
        } else if (record.kind == VELMORA_BATTERY) {
            headset->view.battery = static_cast<int>(record.values[0]);
        }
    }
}

void Watch::event(const Record& record, Followed* headset, const Notice& notice) {
    if (record.code == VELMORA_EVENT_RESTARTED) {
        restarted_ = true;
        notice("the dongle restarted");
        return;
    }
    if (record.code == VELMORA_EVENT_OVERRUN) {
        notice("this computer does not keep up; packets are being dropped");
        return;
    }
    const bool connected = record.code == VELMORA_EVENT_CONNECTED;
    if (headset == nullptr || (!connected && record.code != VELMORA_EVENT_DISCONNECTED)) {
        return;
    }
    if (headset->view.connected != connected) {
        notice(headsetText(headset->view.address, headset->view.name) + (connected ? " is back" : " left"));
    }
    headset->view.connected = connected;
    if (connected) {
        headset->view.index = record.index;
        headset->last = record.time;
        headset->first = 0;
        lastData_ = std::max(lastData_, record.time);
    }
}

void Watch::update(const StatisticsOf& statistics) {
    for (Followed& headset : followed_) {
        const HeadsetStatistics counts = statistics(headset.number);
        HeadsetView& view = headset.view;
        const bool steady = headset.first != 0 && secondsBetween(headset.first, headset.last) > kSteady;
        view.packets = view.lost = view.dropped = view.repeated = 0;
        view.slowest = std::numeric_limits<double>::max();
        view.fastest = 0;
        for (const velmora_channel_statistics& channel : counts.channels) {
            view.packets += channel.packets;
            view.lost += channel.lost;
            view.dropped += channel.dropped;
            view.repeated += channel.repeated;
            if (channel.rate > 0 && steady) {
                view.slowest = std::min(view.slowest, channel.rate);
                view.fastest = std::max(view.fastest, channel.rate);
            }
        }
        view.slowest = std::min(view.slowest, view.fastest);
        view.channels = std::max(headset.multi, std::popcount(headset.channels));
    }
}

std::vector<HeadsetView> Watch::views(std::int64_t now) const {
    std::vector<HeadsetView> views;
    for (const Followed& headset : followed_) {
        views.push_back(headset.view);
        views.back().silentSeconds = secondsBetween(headset.last, now);
    }
    return views;
}

double Watch::silentSeconds(std::int64_t now) const {
    return secondsBetween(lastData_, now);
}

bool Watch::anyConnected() const {
    return std::any_of(followed_.begin(), followed_.end(), [](const Followed& one) { return one.view.connected; });
}

bool Watch::takeRestarted() {
    return std::exchange(restarted_, false);
}

void Watch::beginAgain(std::span<const Headset> headsets, std::int64_t now) {
    for (const Headset& headset : headsets) {
        if (Followed* const followed = find(headset.number)) {
            followed->view.connected = headset.connected != 0;
            followed->view.index = headset.connected != 0 ? headset.index : followed->view.index;
        }
    }
    lastData_ = now;
    restarted_ = false;
}

std::vector<std::string> tableLines(std::span<const HeadsetView> views, double seconds, std::string_view port) {
    constexpr std::size_t kLossWidth = 13;
    std::vector<std::string> lines;
    lines.push_back(timeText(seconds) + "  " + std::string(port) + "  Ctrl-C ends");
    const auto add = [&lines](std::string_view address, std::string_view name, std::string_view index,
                              std::string_view state, std::string_view packets, std::string_view lost,
                              std::string_view battery) {
        lines.push_back(padded(address, 12) + "  " + padded(name, 10) + "  " + rightPadded(index, 3) + "  " +
                        padded(state, 17) + " " + rightPadded(packets, 9) + "  " + padded(lost, kLossWidth) + "  " +
                        rightPadded(battery, 4));
    };
    add("ADDRESS", "NAME", "IDX", "CH x SAMPLES/S", "PACKETS", "LOST", "BATT");
    for (const HeadsetView& view : views) {
        const std::uint64_t missing = view.lost + view.dropped;
        std::string lost = lossText(view.packets, missing);
        if (lost.size() > kLossWidth) {
            lost = lossText(view.packets, missing, true);
        }
        add(view.address, view.name, view.index < 0 ? "-" : std::to_string(view.index), stateText(view, ""),
            std::to_string(view.packets), lost, batteryText(view));
    }
    return lines;
}

std::string logLine(const HeadsetView& view, double seconds) {
    return rightPadded(fixed(seconds, 1), 7) + " s  " + padded(view.address, 12) + "  " +
           stateText(view, " samples/s") + ", " + std::to_string(view.packets) + " packets, lost " +
           lossText(view.packets, view.lost + view.dropped) + ", battery " + batteryText(view);
}

std::string summaryLine(const HeadsetView& view, double seconds) {
    std::string line = headsetText(view.address, view.name) + ": " + fixed(seconds, 1) + " s, " +
                       std::to_string(view.packets) + " packets";
    if (view.fastest > 0) {
        line += ", " + rateText(view.channels, view.slowest, view.fastest) + " samples/s";
    }
    line += ", lost " + lossText(view.packets, view.lost);
    if (view.dropped > 0) {
        line += ", " + std::to_string(view.dropped) + " dropped by this computer";
    }
    return line;
}

std::string summaryJson(std::span<const HeadsetView> views, double seconds, const Statistics& line) {
    Json json;
    json.beginObject().field("seconds", seconds, 3).beginArray("headsets");
    for (const HeadsetView& view : views) {
        json.beginObject()
            .field("address", view.address)
            .field("name", view.name)
            .field("index", view.index)
            .field("connected", view.connected)
            .field("channels", view.channels)
            .field("samples_per_second", (view.slowest + view.fastest) / 2, 3)
            .field("packets", view.packets)
            .field("lost", view.lost)
            .field("lost_percent", lossPercent(view.packets, view.lost + view.dropped), 3)
            .field("dropped", view.dropped)
            .field("repeated", view.repeated);
        view.battery < 0 ? json.null("battery") : json.field("battery", view.battery);
        json.endObject();
    }
    json.endArray()
        .beginObject("line")
        .field("bytes", line.bytes)
        .field("stray_bytes", line.stray_bytes)
        .field("damaged_headers", line.damaged_headers)
        .field("incomplete_frames", line.incomplete_frames)
        .field("queue_largest", line.queue_largest)
        .field("queue_dropped", line.queue_dropped)
        .endObject()
        .endObject();
    return json.text();
}

}  // namespace velmora::cli
