#include "cli/live_view.h"

#include "cli/failure.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

constexpr std::int64_t kStatusPause = 1'000'000'000;

std::unique_ptr<view::Server> start(const view::ServerOptions& options, view::Feed& feed) {
    try {
        return view::Server::start(options, feed);
    } catch (const std::exception& problem) {
        throw Failure(kUsage, problem.what());
    }
}

}  // namespace

LiveView::LiveView(const ViewSettings& settings, Reporter& reporter)
    : reporter_(reporter), server_(start(settings.server, feed_)) {
    if (server_->open()) {
        reporter_.warn("everybody in the network who gets the address below can look on, and nothing is encrypted");
        if (settings.server.listen == "0.0.0.0" || settings.server.listen == "::") {
            reporter_.warn("on another machine, put the address of this one in place of the first part");
        }
    }
    reporter_.warn("live view: " + server_->address());
    if (settings.browser && !openBrowser(server_->address())) {
        reporter_.say("no browser could be opened; open that address yourself");
    }
}

void LiveView::begin(const Reception& reception, bool goesOn, bool recording, const std::vector<Mark>& marks) {
    view::Hello hello;
    hello.started = reception.started().time;
    hello.utc = reception.started().utc;
    hello.recording = recording;
    hello.goesOn = goesOn;
    for (const Headset& headset : reception.headsets()) {
        hello.headsets.push_back(
            {headset.number, headset.index, headset.connected != 0, headset.address, printable(headset.name)});
    }
    for (const Mark& mark : marks) {
        hello.marks.push_back({mark.key, mark.text});
    }
    feed_.put(view::helloMessage(hello));
}

void LiveView::tick(Reception& reception) {
    while (const auto address = feed_.nextNotice()) {
        reporter_.warn("live view, for one more browser: " + *address);
    }
    const std::int64_t now = velmora_now();
    if (now - due_ < kStatusPause) {
        return;
    }
    due_ = now;
    std::vector<view::StatusEntry> entries;
    const auto views = reception.views();
    for (std::size_t i = 0; i < views.size(); ++i) {
        const HeadsetView& from = views[i];
        entries.push_back({reception.headsets()[i].number, from.index, from.connected, from.channels, from.battery,
                           from.slowest, from.fastest, from.silentSeconds, from.packets, from.lost, from.dropped,
                           from.repeated});
    }
    feed_.put(view::statusMessage(now, entries));
}

void LiveView::marked(std::int64_t time, const std::string& text) {
    feed_.put(view::eventMessage(time, -1, view::kMarkEvent, text));
}

void LiveView::end(const std::string& text) {
    feed_.put(view::endedMessage(velmora_now(), text));
}

}  // namespace velmora::cli
