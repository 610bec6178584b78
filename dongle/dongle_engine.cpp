#include "dongle/dongle_engine.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "base/number.h"

namespace dongle {

namespace {

// Without gaps data leaves this often: no pause that the host could take for the end of a read.
constexpr Time kContinuousInterval = 4ms;
constexpr std::size_t kAddressSize = 12;

bool consume(std::string_view& text, std::string_view start) {
    if (!text.starts_with(start)) {
        return false;
    }
    text.remove_prefix(start.size());
    return true;
}

/// The addresses of a group connection: 12 characters each, a number may follow, ';' between them.
std::vector<std::string_view> addressesOf(std::string_view list) {
    std::vector<std::string_view> addresses;
    while (!list.empty()) {
        const std::string_view entry = list.substr(0, list.find(';'));
        list.remove_prefix(std::min(list.size(), entry.size() + 1));
        if (entry.size() < kAddressSize) {
            continue;
        }
        const std::string_view flag = entry.substr(kAddressSize);
        if (flag.empty() || kxorbeta_if::wholeNumber<int>(flag)) {
            addresses.push_back(entry.substr(0, kAddressSize));
        }
    }
    return addresses;
}

}  // namespace

std::vector<HostRequest> HostLog::since(std::uint64_t seen) const {
    const std::uint64_t forgotten = total - requests.size();
    const std::uint64_t skip = std::min<std::uint64_t>(requests.size(), seen > forgotten ? seen - forgotten : 0);
    return {requests.begin() + static_cast<std::ptrdiff_t>(skip), requests.end()};
}

std::size_t HostLog::countTexts(std::string_view start) const {
    return static_cast<std::size_t>(std::count_if(requests.begin(), requests.end(), [&](const HostRequest& request) {
        return request.kind == HostRequest::Kind::Text && request.text.starts_with(start);
    }));
}

Engine::Engine(Settings settings)
    : settings_(std::move(settings)),
      account_(settings_.account ? std::optional<Account>(settings_.onSettled) : std::nullopt),
      data_(settings_.line, settings_.faults, account()) {
    if (const auto problem = problemWith(settings_)) {
        throw std::invalid_argument(*problem);
    }
    for (const HeadsetSettings& headset : settings_.headsets) {
        headsets_.emplace_back(headset, headsets_.size());
    }
    if (settings_.timersFrom == TimersFrom::Start) {
        startTimers();
    }
}

// ---- time

void Engine::receive(std::span<const std::uint8_t> bytes, Time now) {
    advance(now);
    if (!pluggedIn()) {
        return;
    }
    for (HostRequest& request : parser_.take(bytes, now_)) {
        handle(request);
        log_.requests.push_back(std::move(request));
        ++log_.total;
        if (log_.requests.size() > HostLog::kMost) {
            log_.requests.pop_front();
        }
    }
    advance(now);
}

void Engine::advance(Time now) {
    for (auto due = nextDue(); due && *due <= now; due = nextDue()) {
        now_ = std::max(now_, *due);
        if (nextTick_ == due) {
            tick();
        } else {
            // Taken out first: the act may plan, or forget plans.
            auto planned = plans_.extract(plans_.begin());
            planned.mapped().act();
        }
    }
    now_ = std::max(now_, now);
}

std::optional<Time> Engine::nextDue() const {
    if (plans_.empty()) {
        return nextTick_;
    }
    if (!nextTick_) {
        return plans_.begin()->first;
    }
    return std::min(*nextTick_, plans_.begin()->first);
}

std::vector<Write> Engine::takeWrites() {
    return std::exchange(writes_, {});
}

void Engine::plan(Purpose purpose, Time delay, std::function<void()> act) {
    if (hungUp_) {
        return;
    }
    plans_.emplace(now_ + delay, Planned{purpose, std::move(act)});
}

void Engine::forget(Purpose purpose) {
    std::erase_if(plans_, [&](const auto& plan) { return plan.second.purpose == purpose; });
}

void Engine::startTimers() {
    if (std::exchange(timersStarted_, true)) {
        return;
    }
    const auto after = [&](Time delay, std::function<void()> act) {
        if (delay > Time{0}) {
            plan(Purpose::Timer, delay, std::move(act));
        }
    };
    const FaultSettings& faults = settings_.faults;
    planRepeatedly(faults.restartAfter, faults.restartEvery, [this] { restart(); });
    if (faults.replugEvery > Time{0}) {
        planRepeatedly(faults.hangUpAfter, faults.replugEvery, [this] {
            unplug();
            plan(Purpose::Timer, settings_.faults.replugAway, [this] { plug(); });
        });
    } else {
        after(faults.hangUpAfter, [this] { hangUp(); });
    }
    after(faults.silenceAfter, [this] { setSilent(true); });
    for (Headset& headset : headsets_) {
        after(headset.settings().joinAfter, [this, &headset] {
            if (!headset.connected()) {
                join(headset.settings().index);
            }
        });
    }
}

void Engine::planRepeatedly(Time first, Time period, std::function<void()> act) {
    const Time delay = first > Time{0} ? first : period;
    if (delay <= Time{0}) {
        return;
    }
    plan(Purpose::Timer, delay, [this, period, act = std::move(act)] {
        planRepeatedly(period, period, act);
        act();
    });
}

// ---- requests

void Engine::handle(const HostRequest& request) {
    switch (request.kind) {
        case HostRequest::Kind::Text:
            handleText(request.text);
            break;
        case HostRequest::Kind::Command:
            handleCommand(request);
            break;
        case HostRequest::Kind::Garbage:
            counters_.garbageBytes += request.bytes.size();
            break;
    }
}

void Engine::handleText(std::string_view text) {
    const ReplySettings& replies = settings_.replies;
    if (text == "AT+PING") {
        if (!replies.pingText.empty()) {
            plan(Purpose::Reply, replies.delay, [this] { say(settings_.replies.pingText); });
        }
    } else if (text == "AT+SCAN") {
        scan();
    } else if (consume(text, "AT+GRPCONN=")) {
        connectGroup(text);
    } else if (consume(text, "AT+DISDEV=")) {
        disconnectByHost(text);
    } else if (text == "AT+DISCONN") {
        disconnectAll();
    } else if (text == "AT+LIST") {
        plan(Purpose::Reply, replies.delay, [this] { sendList(); });
    } else {
        ++counters_.unknownTexts;
    }
}

void Engine::scan() {
    forget(Purpose::Scan);
    const ReplySettings& replies = settings_.replies;
    if (!replies.scan) {
        return;
    }
    std::vector<std::string> lines = replies.scanLines;
    if (lines.empty()) {
        for (const Headset& headset : headsets_) {
            const HeadsetSettings& is = headset.settings();
            if (!is.advertises || headset.connected()) {
                continue;
            }
            lines.push_back(is.address + "," + std::to_string(is.scanFlag) + " " + is.name);
        }
    }
    plan(Purpose::Scan, replies.delay, [this] { say("Start scan" + settings_.replies.lineEnd); });
    const auto steps = static_cast<std::int64_t>(lines.size() + 1);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const Time when = replies.scanDuration * static_cast<std::int64_t>(i + 1) / steps;
        plan(Purpose::Scan, replies.delay + when, [this, line = lines[i]] { say(line + settings_.replies.lineEnd); });
    }
    if (replies.scanEnd) {
        plan(Purpose::Scan, replies.delay + replies.scanDuration,
             [this] { say("Finish scan" + settings_.replies.endLineEnd); });
    }
}

void Engine::connectGroup(std::string_view list) {
    const ReplySettings& replies = settings_.replies;
    const auto isConnected = [](const Headset& headset) { return headset.connected(); };
    const bool second = std::any_of(headsets_.begin(), headsets_.end(), isConnected);
    if (second && replies.secondGroup == SecondGroup::Ignore) {
        return;
    }
    forget(Purpose::Connection);
    if (!replies.connect) {
        return;
    }
    const std::vector<std::string_view> addresses = addressesOf(list);
    if (second && replies.secondGroup == SecondGroup::DropOthers) {
        dropOthers(addresses);
    }
    const Time total = replies.connectDuration * static_cast<std::int64_t>(addresses.size());
    Time when = replies.delay;
    for (const std::string_view address : addresses) {
        when += replies.connectDuration;
        Headset* headset = find(address);
        if (headset == nullptr) {
            continue;
        }
        // A headset that streamed for an earlier host begins anew, with its counters.
        drop(*headset);
        plan(Purpose::Connection, when, [this, headset, untilEnd = replies.delay + total - when] {
            if (headset->settings().connectFails) {
                return;
            }
            const bool early = settings_.line.dataDuringText;
            connect(*headset, early ? now_ : now_ + untilEnd + settings_.replies.streamDelay);
        });
    }
    plan(Purpose::Connection, replies.delay + total, [this] { endConnection(); });
}

void Engine::endConnection() {
    if (settings_.replies.connectEnd) {
        say("Group connection finish" + settings_.replies.endLineEnd);
    }
    startTimers();
}

void Engine::dropOthers(const std::vector<std::string_view>& addresses) {
    for (Headset& headset : headsets_) {
        const std::string& address = headset.settings().address;
        if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
            disconnectByHost(address);
        }
    }
}

void Engine::disconnectByHost(std::string_view address) {
    Headset* headset = find(address);
    if (headset == nullptr || !headset->connected()) {
        return;
    }
    drop(*headset);
    if (!settings_.replies.disconnect) {
        return;
    }
    plan(Purpose::Reply, settings_.replies.delay, [this, headset] { reportDisconnection(*headset); });
}

void Engine::disconnectAll() {
    forget(Purpose::Connection);
    for (Headset& headset : headsets_) {
        drop(headset);
    }
}

void Engine::handleCommand(const HostRequest& request) {
    if (!request.checkByteOk || !settings_.replies.commands) {
        return;
    }
    const bool all = request.target == "AL";
    const auto target = kxorbeta_if::wholeNumber<int>(request.target);
    for (Headset& headset : headsets_) {
        if (!headset.connected() || !(all || target == headset.settings().index)) {
            continue;
        }
        const Time delay = settings_.replies.delay + settings_.replies.responseDelay;
        plan(Purpose::Reply, delay, [this, &headset, request, connection = headset.connection()] {
            if (!headset.connected() || headset.connection() != connection || silent_) {
                return;
            }
            // The headset shows what it was told: the command, then the bytes in front of it.
            const std::uint8_t mark = settings_.replies.responseMark;
            const auto respond = request.bytes.size() == 8 ? shortResponse : longResponse;
            data_.push({FrameKind::Response, respond(mark, request.commandByte(), request.payload())}, headset, now_);
            planTick();
        });
    }
}

// ---- headsets

void Engine::connect(Headset& headset, Time streamStart) {
    headset.connect(streamStart);
    const HeadsetSettings& is = headset.settings();
    say("Service connected. " + is.address + "," + std::to_string(is.index) + settings_.replies.lineEnd);
    planTick();
    if (is.disconnectAfter > Time{0}) {
        plan(Purpose::Timer, is.disconnectAfter, [this, &headset, connection = headset.connection()] {
            if (headset.connected() && headset.connection() == connection) {
                disconnect(headset.settings().index);
            }
        });
    }
}

void Engine::drop(Headset& headset) {
    headset.disconnect();
    data_.forget(headset);
}

void Engine::reportDisconnection(const Headset& headset) {
    // A field has to follow the address: the host takes an address for whole only when a ',' ends it.
    say("Client disconnected," + headset.settings().address + "," + settings_.replies.disconnectReason +
        settings_.replies.endLineEnd);
}

void Engine::join(int index) {
    if (pluggedIn()) {
        connect(at(index), now_ + settings_.replies.streamDelay);
    }
}

void Engine::disconnect(int index) {
    Headset& headset = at(index);
    drop(headset);
    reportDisconnection(headset);
    if (headset.settings().rejoinAfter > Time{0}) {
        plan(Purpose::Timer, headset.settings().rejoinAfter, [this, &headset] { rejoin(headset); });
    }
}

void Engine::rejoin(Headset& headset) {
    // The host may have fetched it back, or the dongle may be away.
    if (headset.connected() || unplugged_) {
        return;
    }
    headset.swapIndex();
    join(headset.settings().index);
}

void Engine::powerOff() {
    forget(Purpose::Scan);
    forget(Purpose::Connection);
    forget(Purpose::Reply);
    for (Headset& headset : headsets_) {
        headset.disconnect();
    }
    data_.clear();
}

void Engine::restart() {
    powerOff();
    sendRaw(settings_.replies.bootText);
}

void Engine::unplug() {
    if (!pluggedIn()) {
        return;
    }
    unplugged_ = true;
    ++unpluggings_;
    powerOff();
    for (const Write& write : std::exchange(writes_, {})) {
        if (account_) {
            account_->dropped(write.pieces, 0, DropCause::Gone);
        }
    }
    nextTick_.reset();
}

void Engine::plug() {
    unplugged_ = false;
}

void Engine::hangUp() {
    unplug();
    hungUp_ = true;
    plans_.clear();
}

void Engine::setSilent(bool silent) {
    silent_ = silent;
    if (silent) {
        data_.clear();
    }
}

void Engine::sendList() {
    std::string list;
    for (const Headset& headset : headsets_) {
        if (!headset.connected()) {
            continue;
        }
        if (!list.empty()) {
            list += ";";
        }
        list += std::to_string(headset.settings().index) + "," + headset.settings().address;
    }
    say("AT+LIST=" + (list.empty() ? "none" : list) + settings_.replies.lineEnd);
}

void Engine::sendRaw(std::string_view bytes) {
    if (silent_ || !pluggedIn() || bytes.empty()) {
        return;
    }
    writes_.push_back({Bytes(bytes.begin(), bytes.end()), settings_.line.textGap});
}

void Engine::say(const std::string& text) {
    if (silent_ || !pluggedIn()) {
        return;
    }
    const auto streams = [&](const Headset& headset) { return headset.streams(now_); };
    if (settings_.line.dataDuringText && std::any_of(headsets_.begin(), headsets_.end(), streams)) {
        data_.pushText(text);
        planTick();
    } else {
        data_.writeText(text, writes_);
    }
}

// ---- data

Time Engine::tickInterval() const {
    return settings_.line.gaps ? settings_.line.burstInterval : kContinuousInterval;
}

void Engine::planTick() {
    if (!nextTick_ && pluggedIn()) {
        nextTick_ = now_ + tickInterval();
    }
}

void Engine::tick() {
    nextTick_.reset();
    bool alive = false;
    const bool paced = settings_.line.fillBytesPerSecond == 0;
    for (std::size_t i = 0; i < headsets_.size(); ++i) {
        Headset& headset = headsets_[(turn_ + i) % headsets_.size()];
        alive = alive || headset.connected();
        HeadsetFrame frame;
        while (headset.takeDue(now_, paced, frame)) {
            give(std::move(frame), headset);
        }
    }
    if (!headsets_.empty()) {
        turn_ = (turn_ + 1) % headsets_.size();
    }
    if (!paced) {
        fill();
    }
    if (!silent_) {
        data_.flush(now_, writes_);
    }
    if (alive || !data_.empty()) {
        planTick();
    }
}

void Engine::give(HeadsetFrame frame, Headset& headset) {
    if (silent_) {
        data_.discard(frame, headset, now_);
    } else {
        data_.push(std::move(frame), headset, now_);
    }
}

void Engine::fill() {
    auto room = static_cast<std::int64_t>(data_.room(now_));
    for (std::size_t idle = 0; room > 0 && idle < headsets_.size();) {
        Headset& headset = headsets_[turn_];
        turn_ = (turn_ + 1) % headsets_.size();
        if (!headset.streams(now_)) {
            ++idle;
            continue;
        }
        idle = 0;
        HeadsetFrame frame = headset.takeRaw();
        // Lost frames count too: a fault that loses all of them must not keep this going.
        room -= static_cast<std::int64_t>(frame.bytes.size());
        give(std::move(frame), headset);
    }
}

// ---- settings and what has happened

void Engine::setFaults(const FaultSettings& faults) {
    if (faults.seed != settings_.faults.seed) {
        data_.reseed(faults.seed);
    }
    settings_.faults = faults;
}

void Engine::setLine(const LineSettings& line) {
    settings_.line = line;
    // Pacing by sample rate starts over: what a filled line has sent is not to be made up for.
    for (Headset& headset : headsets_) {
        headset.setSampleRate(headset.settings().sampleRate, now_);
    }
}

void Engine::setSampleRate(int index, int samplesPerSecond) {
    at(index).setSampleRate(samplesPerSecond, now_);
}

void Engine::setConnectFails(int index, bool fails) {
    at(index).setConnectFails(fails);
}

Counters Engine::counters() const {
    Counters counters = counters_;
    counters.line = data_.counters();
    return counters;
}

const HeadsetCounters& Engine::headsetCounters(int index) const {
    return at(index).counters();
}

bool Engine::connected(int index) const {
    return at(index).connected();
}

const Headset& Engine::at(int index) const {
    const auto found = std::find_if(headsets_.begin(), headsets_.end(),
                                    [&](const Headset& headset) { return headset.settings().index == index; });
    if (found == headsets_.end()) {
        throw std::out_of_range("no headset has the index " + std::to_string(index));
    }
    return *found;
}

Headset& Engine::at(int index) {
    return const_cast<Headset&>(std::as_const(*this).at(index));
}

Headset* Engine::find(std::string_view address) {
    const auto found = std::find_if(headsets_.begin(), headsets_.end(),
                                    [&](const Headset& headset) { return headset.settings().address == address; });
    return found == headsets_.end() ? nullptr : &*found;
}

}  // namespace dongle
