#include "session/session.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "base/pinned_thread.h"
#include "base/text.h"
#include "protocol/commands.h"
#include "protocol/reports.h"

namespace velmora {
namespace {

using kxorbeta_if::Port;
using kxorbeta_if::systemClock;
using namespace std::chrono_literals;

constexpr auto kWriteTime = 1s;          // a dongle that takes a command at all takes it in milliseconds
constexpr auto kReopenInterval = 100ms;  // between two looks for a dongle that was unplugged

Outcome cancelled() {
    return failure(VELMORA_CANCELLED, "The call was cancelled.");
}

Outcome closed() {
    return failure(VELMORA_CLOSED, "The handle is closed; open the dongle anew.");
}

Outcome gone() {
    return failure(VELMORA_GONE, "The dongle was unplugged or its port hung up. Plug it in and call velmora_reopen.");
}

Outcome restarted() {
    return failure(VELMORA_RESTARTED, "The dongle restarted and has forgotten its headsets; connect them again.");
}

Outcome invalid(std::string text) {
    return failure(VELMORA_INVALID, std::move(text));
}

/// What a status means that ended a wait.
Outcome ending(velmora_status status) {
    switch (status) {
        case VELMORA_CLOSED:
            return closed();
        case VELMORA_GONE:
            return gone();
        case VELMORA_RESTARTED:
            return velmora::restarted();
        default:
            return {status};
    }
}

}  // namespace

Clock::Time deadlineIn(std::int32_t milliseconds) {
    return milliseconds < 0 ? Clock::Time::max() : systemClock().now() + std::chrono::milliseconds(milliseconds);
}

/// A request that waits for its response.
struct Session::Request {
    std::uint8_t code;
    Nanoseconds sent = std::numeric_limits<Nanoseconds>::max();  // responses before that belong to nobody
    velmora_status status = VELMORA_OK;
    bool done = false;
    velmora_record response{};
    Signal moved;
};

/// The right to the conversation; given back when it goes.
class Session::Talk {
  public:
    explicit Talk(Session& session) : session_(session) {}
    ~Talk() {
        if (mine_) {
            const std::lock_guard guard(session_.mutex_);
            session_.receiver_.finishConversation(asked_);
        }
    }
    Talk(const Talk&) = delete;
    Talk& operator=(const Talk&) = delete;

    /// The mutex is held. Why not, unless it is free.
    Outcome take() {
        if (session_.receiver_.conversation().topic() != Conversation::Topic::kNone) {
            return failure(VELMORA_BUSY, "Another call is scanning, connecting, dropping or reopening on this handle.");
        }
        mine_ = true;
        session_.conversationMoved_.reset();
        return {};
    }

    /// The dongle has been asked, and will say something.
    void asked() { asked_ = true; }

  private:
    Session& session_;
    bool mine_ = false;
    bool asked_ = false;
};

Session::Session(const Environment& environment, const Settings& settings)
    : environment_(environment),
      settings_(settings),
      queue_(settings.queueCapacity),
      commands_(systemClock(), settings.commandGap),
      port_(environment.makePort()),
      receiver_(queue_, *this) {}

Session::~Session() {
    close();
}

// ------------------------------------------------------------------------------------------------ life

Outcome Session::open(const std::string& path) {
    const std::lock_guard life(lifeMutex_);
    path_ = path;
    for (const velmora_port& port : environment_.listPorts(Environment::Holders::kLeaveOut)) {
        if (path == port.path) {
            identity_ = port;
        }
    }
    return openPort(path);
}

Outcome Session::openPort(const std::string& path) {
    {
        // An earlier reading thread still closes the port when it has told that it is gone.
        std::unique_lock lock(mutex_);
        readingEnded_.wait(lock, [this] { return !reading_; });
    }
    Outcome outcome = openForDongle(*port_, path, environment_);
    if (!outcome.ok()) {
        return outcome;
    }
    port_->requestLowLatency();
    const std::lock_guard guard(mutex_);
    state_ = State::kOpen;
    ended_ = VELMORA_OK;
    receiver_.opened(nanoseconds(systemClock().now()));
    try {
        reading_ = true;
        kxorbeta_if::startPinnedThread([this] { readUntilEnd(); });
    } catch (...) {
        reading_ = false;
        state_ = State::kGone;
        ended_ = VELMORA_GONE;
        port_->close();
        throw;
    }
    log("opened ", path);
    return {};
}

/// Where the dongle is that was opened first; nothing while it is not there.
std::optional<std::string> Session::whereItIs() const {
    if (identity_.usb_serial[0] == '\0') {
        return path_;
    }
    for (const velmora_port& port : environment_.listPorts(Environment::Holders::kLeaveOut)) {
        if (std::strcmp(port.usb_serial, identity_.usb_serial) == 0 && port.usb_vendor == identity_.usb_vendor &&
            port.usb_product == identity_.usb_product) {
            return port.path;
        }
    }
    return std::nullopt;
}

Outcome Session::reopen(Clock::Time deadline, Signal* cancel) {
    Talk talk(*this);
    {
        const std::lock_guard guard(mutex_);
        if (state_ == State::kOpen) {
            return {};
        }
        if (const Outcome taken = talk.take(); !taken.ok()) {
            return taken;
        }
        receiver_.conversation().begin(Conversation::Topic::kReopen);
    }
    for (;;) {
        Outcome last = failure(VELMORA_NOT_FOUND, std::string("No port has the dongle's USB serial number ") +
                                                      identity_.usb_serial + "; plug it in.");
        {
            const std::lock_guard life(lifeMutex_);
            {
                const std::lock_guard guard(mutex_);
                if (state_ == State::kClosed) {
                    return closed();
                }
            }
            if (const auto path = whereItIs()) {
                last = openPort(*path);
                if (last.ok()) {
                    return last;
                }
            }
        }
        const auto now = systemClock().now();
        if (cancel != nullptr && cancel->isSet()) {
            return cancelled();
        }
        if (now >= deadline) {
            return failure(VELMORA_TIMEOUT, "The dongle did not come back. " + last.text, last.systemCode);
        }
        waitForEither(conversationMoved_, cancel, std::min<Clock::Time>(deadline, now + kReopenInterval));
    }
}

void Session::close() {
    commands_.close();
    const auto endAll = [this] {
        const std::lock_guard guard(mutex_);
        state_ = State::kClosed;
        endAllWaiting(VELMORA_CLOSED);
    };
    endAll();  // also a reopening, which holds the following for moments only
    const std::lock_guard life(lifeMutex_);
    endAll();  // also what began in between, when a reopening came to its end
    port_->close();
    std::unique_lock lock(mutex_);
    readingEnded_.wait(lock, [this] { return !reading_; });
    ended_ = VELMORA_CLOSED;
    queue_.wakeTaker();
}

void Session::readUntilEnd() {
    for (;;) {
        const auto room = receiver_.room();
        const int count = port_->readAvailable(room.data(), static_cast<std::uint32_t>(room.size()),
                                               systemClock().now() + Receiver::kLongestWait);
        const Nanoseconds now = nanoseconds(systemClock().now());
        const std::lock_guard guard(mutex_);
        if (state_ != State::kOpen) {
            break;
        }
        if (count < 0) {
            lineIsGone(now);
            break;
        }
        receiver_.received(static_cast<std::size_t>(count), now);
        queue_.publish();
    }
    port_->close();  // at once, so that its name is free when it is plugged in again
    const std::lock_guard guard(mutex_);
    reading_ = false;
    readingEnded_.notify_all();  // under the mutex: whoever waits for this may destroy it all
}

/// The mutex is held.
void Session::lineIsGone(Nanoseconds now) {
    state_ = State::kGone;
    receiver_.lineIsGone(now, port_->systemError());
    endAllWaiting(VELMORA_GONE);
    queue_.publish();
    ended_ = VELMORA_GONE;
    queue_.wakeTaker();
    log("the port is gone", "");
}

/// The mutex is held.
void Session::endAllWaiting(velmora_status reason) {
    receiver_.conversation().brokenOff(reason);
    conversationMoved_.set();
    for (std::size_t index = 0; index < requests_.size(); ++index) {
        endRequest(index, reason);
    }
}

/// The mutex is held.
Outcome Session::notOpen() const {
    switch (state_) {
        case State::kOpen:
            return {};
        case State::kGone:
            return gone();
        default:
            return closed();
    }
}

// ------------------------------------------------------------------------------------------------ writing

Outcome Session::write(std::span<const std::uint8_t> bytes, const Signal* cancel, Nanoseconds* when) {
    switch (commands_.enter(cancel)) {
        case CommandGate::Entry::kCancelled:
            return cancelled();
        case CommandGate::Entry::kClosed:
            return closed();
        case CommandGate::Entry::kEntered:
            break;
    }
    const auto now = systemClock().now();
    if (when != nullptr) {
        const std::lock_guard guard(mutex_);
        *when = nanoseconds(now);
    }
    const bool written = port_->write(bytes.data(), bytes.size(), now + kWriteTime) == Port::kWritten;
    commands_.leave();
    const std::lock_guard guard(mutex_);
    if (written) {
        return {};
    }
    if (const Outcome state = notOpen(); !state.ok()) {
        return state;
    }
    return failure(VELMORA_TIMEOUT, "The port did not take a command for a second. Unplug the dongle and plug it in.");
}

Outcome Session::writeText(std::string_view text, const Signal* cancel) {
    log("sent: ", text.substr(0, text.find('\0')));
    return write({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, cancel);
}

/// Waits until the conversation has come to its result.
Outcome Session::await(Clock::Time deadline, Signal* cancel, const std::function<void(const velmora_found&)>& onFound) {
    std::size_t told = 0;
    std::vector<velmora_found> found;
    for (;;) {
        std::optional<velmora_status> result;
        {
            const std::lock_guard guard(mutex_);
            const Conversation& conversation = receiver_.conversation();
            result = conversation.result();
            if (onFound) {
                const auto& all = conversation.found();
                found.assign(all.begin() + static_cast<std::ptrdiff_t>(told), all.end());
                told = all.size();
            }
        }
        for (const velmora_found& headset : found) {
            onFound(headset);
        }
        if (result) {
            return ending(*result);
        }
        if (cancel != nullptr && cancel->isSet()) {
            return cancelled();
        }
        if (systemClock().now() >= deadline) {
            return {VELMORA_TIMEOUT};
        }
        waitForEither(conversationMoved_, cancel, deadline);
    }
}

// ------------------------------------------------------------------------------------------------ conversations

Outcome Session::scan(const std::function<void(const velmora_found&)>& onFound, Clock::Time deadline, Signal* cancel) {
    Talk talk(*this);
    {
        const std::lock_guard guard(mutex_);
        if (const Outcome state = notOpen(); !state.ok()) {
            return state;
        }
        if (const Outcome taken = talk.take(); !taken.ok()) {
            return taken;
        }
        if (receiver_.headsets().anyConnected()) {
            return failure(VELMORA_BUSY, "Headsets are connected: a dongle scans only without any. Drop them first.");
        }
        receiver_.beginScan();
    }
    Outcome outcome = writeText(protocol::kScan, cancel);
    if (outcome.ok()) {
        talk.asked();
        outcome = await(deadline, cancel, onFound);
        if (outcome.status == VELMORA_TIMEOUT) {
            outcome.text = "The dongle did not say in time that its scan is over; it may take 20 seconds.";
        }
    }
    return outcome;
}

Outcome Session::connect(std::span<velmora_wanted> wanted, bool allowUnproved, Clock::Time deadline, Signal* cancel) {
    std::string command(protocol::kConnectGroup);
    std::vector<Conversation::Member> members;
    for (const velmora_wanted& headset : wanted) {
        protocol::appendGroupMember(command, members.empty(), headset.address, headset.option);
        members.push_back({headset.address});
    }
    if (command.size() > protocol::kLongestCommandText) {
        return invalid("The options make the command longer than the 512 characters that a dongle takes.");
    }
    command.push_back('\0');
    Talk talk(*this);
    {
        const std::lock_guard guard(mutex_);
        if (const Outcome state = notOpen(); !state.ok()) {
            return state;
        }
        if (const Outcome taken = talk.take(); !taken.ok()) {
            return taken;
        }
        if (receiver_.headsets().anyConnected() && !allowUnproved) {
            return failure(
                VELMORA_BUSY,
                "Headsets are connected. Connect all in one call, or drop these first; VELMORA_ALLOW_UNPROVED "
                "tries what no dongle is known to do.");
        }
        receiver_.conversation().beginConnect(std::move(members));
    }
    Outcome outcome = writeText(command, cancel);
    if (outcome.ok()) {
        talk.asked();
        outcome = await(deadline, cancel, nullptr);
    }
    std::string missing;
    {
        const std::lock_guard guard(mutex_);
        const auto& reached = receiver_.conversation().members();
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            if (reached[i].connected) {
                wanted[i].status = VELMORA_OK;
                wanted[i].headset = reached[i].number;
                wanted[i].index = reached[i].index;
            } else {
                missing += (missing.empty() ? "" : ", ") + reached[i].address;
            }
        }
    }
    if (outcome.status == VELMORA_NOT_CONNECTED) {
        outcome.text = "Not connected: " + missing + ". Switch these headsets on, bring them nearer, try again.";
    } else if (outcome.status == VELMORA_TIMEOUT && outcome.text.empty()) {
        outcome.text = "The dongle did not say in time that its attempt is over. Not connected so far: " +
                       (missing.empty() ? "none" : missing) + ".";
    }
    return outcome;
}

Outcome Session::drop(const std::string& address, Clock::Time deadline, Signal* cancel) {
    Talk talk(*this);
    {
        const std::lock_guard guard(mutex_);
        if (const Outcome state = notOpen(); !state.ok()) {
            return state;
        }
        if (const Outcome taken = talk.take(); !taken.ok()) {
            return taken;
        }
        if (!receiver_.headsets().findConnected(address)) {
            return failure(VELMORA_NOT_FOUND, "No headset with the address " + address + " is connected.");
        }
        receiver_.conversation().beginDrop(address);
    }
    std::string command = std::string(protocol::kDisconnectOne) + address;
    command.push_back('\0');
    Outcome outcome = writeText(command, cancel);
    if (outcome.ok()) {
        talk.asked();
        outcome = await(deadline, cancel, nullptr);
        if (outcome.status == VELMORA_TIMEOUT) {
            outcome.text = "The dongle did not report in time that it dropped " + address + ".";
        }
    }
    return outcome;
}

Outcome Session::dropAll(bool allowUnproved) {
    Talk talk(*this);
    {
        const std::lock_guard guard(mutex_);
        if (const Outcome state = notOpen(); !state.ok()) {
            return state;
        }
        if (const Outcome taken = talk.take(); !taken.ok()) {
            return taken;
        }
        if (!receiver_.headsets().anyConnected() && !allowUnproved) {
            return failure(
                VELMORA_BUSY,
                "No headset is known to be connected; VELMORA_ALLOW_UNPROVED tells the dongle all the same.");
        }
        receiver_.conversation().begin(Conversation::Topic::kDropAll);
    }
    Outcome outcome = writeText(protocol::kDisconnectAll, nullptr);
    if (outcome.ok()) {
        const std::lock_guard guard(mutex_);
        if (state_ == State::kOpen) {
            receiver_.allDropped(nanoseconds(systemClock().now()));
            queue_.publish();
        }
    }
    return outcome;
}

// ------------------------------------------------------------------------------------------------ commands

namespace {

/// What goes out for a command, or why nothing can.
Outcome buildCommand(int target, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts,
                     protocol::CommandEnvelope& envelope, std::uint8_t& code) {
    if (target < VELMORA_ALL || target >= protocol::kHeadsets) {
        return invalid("An index at the dongle is 0 to 15.");
    }
    const protocol::CommandFrame frame = protocol::commandFrame(command, payload);
    if (frame.empty()) {
        return invalid("A command carries 0 to 4, 8, 10, 11 or 12 bytes.");
    }
    const bool alone = (target >= 1 && target <= 9) || target == 11;
    if (target != VELMORA_ALL && !alone && !knownTexts) {
        return failure(VELMORA_NOT_ADDRESSABLE, "The protocol has no text that reaches the headset at index " +
                                                    std::to_string(target) +
                                                    " alone. VELMORA_KNOWN_TEXTS sends the one that others get too.");
    }
    // To all is what the protocol makes of index 0.
    envelope = protocol::commandEnvelope(target == VELMORA_ALL ? 0 : static_cast<std::uint32_t>(target), frame);
    code = frame.bytes()[frame.bytes().size() - 2];
    return {};
}

}  // namespace

Outcome Session::send(int target, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts) {
    protocol::CommandEnvelope envelope;
    std::uint8_t code = 0;
    if (const Outcome built = buildCommand(target, command, payload, knownTexts, envelope, code); !built.ok()) {
        return built;
    }
    return writeCommand(envelope.bytes(), nullptr, nullptr);
}

Outcome Session::writeCommand(std::span<const std::uint8_t> bytes, const Signal* cancel, Request* request) {
    {
        const std::lock_guard guard(mutex_);
        if (const Outcome state = notOpen(); !state.ok()) {
            return state;
        }
    }
    const Outcome outcome = write(bytes, cancel, request != nullptr ? &request->sent : nullptr);
    if (outcome.ok()) {
        const std::lock_guard guard(mutex_);
        ++commandCount_;
    }
    if (settings_.log != nullptr) {
        log("sent command, target and bytes: ", kxorbeta_if::hexText(bytes));
    }
    return outcome;
}

Outcome Session::request(int index, std::uint8_t command, std::span<const std::uint8_t> payload, bool knownTexts,
                         Clock::Time deadline, Signal* cancel, velmora_record& response) {
    protocol::CommandEnvelope envelope;
    Request request;
    if (index == VELMORA_ALL) {
        return invalid("A response comes from one headset: give its index, 0 to 15.");
    }
    if (const Outcome built = buildCommand(index, command, payload, knownTexts, envelope, request.code); !built.ok()) {
        return built;
    }
    Request*& slot = requests_[static_cast<std::size_t>(index)];
    {
        const std::lock_guard guard(mutex_);
        if (slot != nullptr) {
            return failure(VELMORA_BUSY, "Another call waits for a response of this headset.");
        }
        slot = &request;
    }
    Outcome outcome = writeCommand(envelope.bytes(), cancel, &request);
    while (outcome.ok()) {
        {
            const std::lock_guard guard(mutex_);
            if (request.done) {
                break;
            }
        }
        if (cancel != nullptr && cancel->isSet()) {
            outcome = cancelled();
        } else if (systemClock().now() >= deadline) {
            outcome = failure(VELMORA_TIMEOUT, "The headset did not respond in time.");
        } else {
            waitForEither(request.moved, cancel, deadline);
        }
    }
    const std::lock_guard guard(mutex_);
    slot = nullptr;
    if (!request.done) {
        return outcome;
    }
    if (request.status == VELMORA_OK) {
        response = request.response;
    }
    return request.status == VELMORA_NOT_CONNECTED
               ? failure(VELMORA_NOT_CONNECTED, "The headset left before it responded.")
               : ending(request.status);
}

/// The mutex is held.
void Session::endRequest(std::size_t index, velmora_status reason) {
    Request* const request = requests_[index];
    if (request != nullptr && !request->done) {
        request->done = true;
        request->status = reason;
        request->moved.set();
    }
}

void Session::responded(const velmora_record& response) {
    Request* const request = requests_[static_cast<std::size_t>(response.index)];
    if (request != nullptr && request->code == response.code && response.time >= request->sent && !request->done) {
        request->response = response;
        endRequest(static_cast<std::size_t>(response.index), VELMORA_OK);
    }
}

void Session::left(int index) {
    endRequest(static_cast<std::size_t>(index), VELMORA_NOT_CONNECTED);
}

void Session::restarted() {
    endAllWaiting(VELMORA_RESTARTED);
}

// ------------------------------------------------------------------------------------------------ data

Outcome Session::start(Nanoseconds* time, Nanoseconds* utc) {
    const std::lock_guard guard(mutex_);
    if (state_ == State::kClosed) {
        return closed();
    }
    const auto now = systemClock().now();
    const auto wall = std::chrono::system_clock::now();
    receiver_.start(nanoseconds(now));
    if (time != nullptr) {
        *time = nanoseconds(now);
    }
    if (utc != nullptr) {
        *utc = std::chrono::duration_cast<std::chrono::nanoseconds>(wall.time_since_epoch()).count();
    }
    return {};
}

Outcome Session::stop() {
    const std::lock_guard guard(mutex_);
    if (state_ == State::kClosed) {
        return closed();
    }
    receiver_.stop();
    return {};
}

velmora_status Session::read(velmora_record* records, std::size_t stride, std::size_t capacity, std::size_t min,
                             std::int32_t timeoutMs, Signal* cancel, std::size_t& got) {
    if (taking_.exchange(true)) {
        return VELMORA_BUSY;
    }
    min = std::min(min, capacity);
    velmora_status status = VELMORA_OK;
    std::optional<Clock::Time> deadline;
    for (;;) {
        if (cancel != nullptr && cancel->isSet()) {
            status = VELMORA_CANCELLED;
            break;
        }
        // In this order: what came last came before the end.
        const velmora_status ended = ended_.load();
        const std::size_t size = queue_.size();
        if (ended != VELMORA_OK && size == 0) {
            status = ended;
            break;
        }
        if (size >= min || ended != VELMORA_OK) {
            break;
        }
        if (!deadline) {
            deadline = timeoutMs == 0 ? Clock::Time::min() : deadlineIn(timeoutMs);
        }
        if (timeoutMs == 0 || (*deadline != Clock::Time::max() && systemClock().now() >= *deadline)) {
            status = VELMORA_TIMEOUT;
            break;
        }
        queue_.waitFor(min, cancel, *deadline, [&] { return queue_.size() >= min || ended_.load() != VELMORA_OK; });
    }
    got = queue_.take(records, stride, capacity);
    taking_ = false;
    return status;
}

// ------------------------------------------------------------------------------------------------ looking

void Session::forEachHeadset(const std::function<void(const velmora_headset&)>& use) const {
    const std::lock_guard guard(mutex_);
    const auto& all = receiver_.headsets().headsets();
    for (std::size_t number = 0; number < all.size(); ++number) {
        velmora_headset headset{};
        copyText(headset.address, all[number].address);
        copyText(headset.name, all[number].name);
        headset.number = static_cast<std::int32_t>(number);
        headset.connected = all[number].connected ? 1 : 0;
        headset.index = all[number].connected ? all[number].index : -1;
        use(headset);
    }
}

velmora_statistics Session::statistics() const {
    const std::lock_guard guard(mutex_);
    velmora_statistics result = receiver_.statistics();
    result.queue_capacity = queue_.rawCapacity();
    result.queue_largest = queue_.largest();
    result.commands = commandCount_;
    return result;
}

Outcome Session::headsetStatistics(int number, velmora_headset_statistics& statistics) const {
    const std::lock_guard guard(mutex_);
    if (number < 0 || static_cast<std::size_t>(number) >= receiver_.headsets().headsets().size()) {
        return {VELMORA_NOT_FOUND};
    }
    statistics.headset = number;
    receiver_.headsetStatistics(number, statistics);
    return {};
}

void Session::log(std::string_view what, std::string_view text) const {
    if (settings_.log != nullptr) {
        const std::string line = std::string(what) + std::string(text);
        const std::lock_guard guard(logMutex_);
        settings_.log(settings_.logContext, nanoseconds(systemClock().now()), line.c_str());
    }
}

}  // namespace velmora
