#include "session/receiver.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "base/text.h"
#include "protocol/headset_frames.h"
#include "protocol/reports.h"
#include "session/outcome.h"

namespace velmora {
namespace {

using protocol::FrameKind;

constexpr Nanoseconds kInference = 2'000'000'000;
// Twice the longest wait: a thread that comes back that late has not been watching the line.
constexpr Nanoseconds kStall = 2 * std::chrono::nanoseconds(Receiver::kLongestWait).count();

bool isAddress(std::string_view text) {
    return text.size() == protocol::kAddressDigits && kxorbeta_if::isHexText(text);
}

velmora_record recordOf(int kind, int number, int index, Nanoseconds time) {
    velmora_record record{};
    record.kind = static_cast<std::uint16_t>(kind);
    record.headset = static_cast<std::int16_t>(number);
    record.index = static_cast<std::int16_t>(index);
    record.time = time;
    return record;
}

}  // namespace

Receiver::Receiver(RecordQueue& queue, Listener& listener)
    : queue_(queue),
      listener_(listener),
      headsets_([this](const HeadsetTable::Change& change) { headsetChanged(change); }) {}

void Receiver::opened(Nanoseconds now) {
    reader_.reset();
    now_ = lastReceived_ = lastStall_ = now;
    inferUntil_ = now + kInference;
}

void Receiver::received(std::size_t count, Nanoseconds now) {
    const bool stalled = now - lastReceived_ > kStall;
    lastReceived_ = now;
    if (stalled) {
        lastStall_ = now;
    }
    if (count > 0 || stalled || now >= reader_.deadline()) {
        reader_.received(count, now, stalled, *this);
    }
    if (overrun_ && queue_.size() <= queue_.rawCapacity() / 2) {
        overrun_ = false;
    }
}

void Receiver::lineIsGone(Nanoseconds now, int systemCode) {
    now_ = now;
    headsets_.disconnectAll(true);
    event(VELMORA_EVENT_GONE, -1, -1, {}, static_cast<std::uint32_t>(systemCode));
}

void Receiver::start(Nanoseconds now) {
    gate_ = now;
    for (const auto& line : lines_) {
        if (line != nullptr) {
            line->time.restart();
            line->dropped.fill(0);
            line->missed.fill({});
        }
    }
}

void Receiver::beginScan() {
    conversation_.beginScan();
    reader_.setScanning(true);
}

void Receiver::finishConversation(bool asked) {
    conversation_.finish(asked);
    reader_.setScanning(false);
}

void Receiver::allDropped(Nanoseconds now) {
    now_ = now;
    inferUntil_ = 0;  // what still comes was on its way
    headsets_.disconnectAll(false);
    conversation_.allDropped();
}

// ------------------------------------------------------------------------------------------------ frames

Receiver::Line& Receiver::lineOf(int number) {
    const auto place = static_cast<std::size_t>(number);
    if (place >= lines_.size()) {
        lines_.resize(place + 1);
    }
    if (lines_[place] == nullptr) {
        lines_[place] = std::make_unique<Line>();
    }
    return *lines_[place];
}

void Receiver::frame(int index, FrameKind kind, const std::uint8_t* bytes, Nanoseconds arrival) {
    now_ = arrival;
    const int number = headsets_.owner(index);
    if (arrival <= inferUntil_) {
        headsets_.inferConnected(number);
    }
    const bool open = arrival >= gate_;
    switch (kind) {
        case FrameKind::kRaw:
            if (open) {
                raw(number, index, bytes, arrival);
            }
            return;
        case FrameKind::kPost:
            if (open) {
                const protocol::PostFields fields = protocol::readPost(bytes);
                velmora_record record = recordOf(VELMORA_PROCESSED, number, index, arrival);
                std::copy(fields.values.begin(), fields.values.end(), record.bytes);
                record.bytes[4] = bytes[5];
                std::copy(fields.bands.begin(), fields.bands.end(), record.values);
                queueOther(record, counts_.processed);
            }
            return;
        case FrameKind::kBattery:
            if (open) {
                const protocol::BatteryFields fields = protocol::readBattery(bytes);
                velmora_record record = recordOf(VELMORA_BATTERY, number, index, arrival);
                record.values[0] = fields.level;
                record.values[1] = fields.value;
                queueOther(record, counts_.battery);
            }
            return;
        case FrameKind::kShortResponse:
        case FrameKind::kLongResponse: {
            velmora_record record = recordOf(VELMORA_RESPONSE, number, index, arrival);
            record.code = bytes[2];
            record.count = static_cast<std::uint16_t>(protocol::lengthOf(kind));
            std::copy_n(bytes, record.count, record.bytes);
            queueOther(record, counts_.responses);
            listener_.responded(record);
            return;
        }
        default:
            return;
    }
}

void Receiver::raw(int number, int index, const std::uint8_t* bytes, Nanoseconds arrival) {
    const protocol::ChannelByte channel{bytes[3]};
    const bool multi = !channel.single();
    const int channels = multi ? channel.number() : 1;
    const int slot = multi ? TimeLine::kMulti : channel.number();
    const int samples = protocol::kSamples / channels;
    const std::uint8_t counter = bytes[protocol::kCounterOffset];

    Line& line = lineOf(number);
    const Placement placement = line.time.place(slot, samples, counter, contentOf(bytes), arrival, lastStall_);
    if (placement.repeated) {
        return;
    }
    ++counts_.raw;
    const auto flag = [](bool set, int bit) { return set ? bit : 0; };
    Missed& missed = line.missed[static_cast<std::size_t>(slot)];
    missed.lost += placement.lost;
    missed.flags |= flag(placement.first, VELMORA_FLAG_FIRST) | flag(placement.estimated, VELMORA_FLAG_ESTIMATED);
    velmora_record* const record = queue_.roomForRaw();
    if (record == nullptr) {
        ++missed.dropped;
        ++line.dropped[static_cast<std::size_t>(slot)];
        ++counts_.queue_dropped;
        if (!overrun_) {
            overrun_ = true;
            event(VELMORA_EVENT_OVERRUN, -1, -1, {});
        }
        return;
    }
    record->kind = VELMORA_RAW;
    record->flags = static_cast<std::uint16_t>(missed.flags | flag(multi, VELMORA_FLAG_MULTI) |
                                               flag(placement.damagedCounter, VELMORA_FLAG_DAMAGED_COUNTER));
    record->headset = static_cast<std::int16_t>(number);
    record->index = static_cast<std::int16_t>(index);
    record->time = arrival;
    record->sample = placement.sample;
    record->lost = missed.lost;
    record->dropped = missed.dropped;
    missed = {};
    record->channel = static_cast<std::uint16_t>(multi ? 0 : channel.number());
    record->channels = static_cast<std::uint16_t>(channels);
    record->count = static_cast<std::uint16_t>(samples);
    record->counter = counter;
    record->code = 0;
    std::memset(record->bytes, 0, sizeof record->bytes);
    std::memset(record->values, 0, sizeof record->values);
    std::memset(record->reserved, 0, sizeof record->reserved);
    protocol::convertSamples(bytes, record->samples);
    if (const int used = samples * channels; used < protocol::kSamples) {
        std::fill(record->samples + used, record->samples + protocol::kSamples, std::int16_t{0});
    }
    queue_.commit();
}

void Receiver::queueOther(const velmora_record& record, std::uint64_t& count) {
    ++count;
    velmora_record* const room = record.kind == VELMORA_EVENT ? queue_.roomForEvent() : queue_.roomForOther();
    if (room != nullptr) {
        *room = record;
        queue_.commit();
    } else {
        ++counts_.queue_dropped;
    }
}

// ------------------------------------------------------------------------------------------------ texts

void Receiver::event(int code, int number, int index, std::string_view address, std::uint32_t value) {
    velmora_record record = recordOf(VELMORA_EVENT, number, index, now_);
    record.code = static_cast<std::uint8_t>(code);
    address.copy(reinterpret_cast<char*>(record.bytes), sizeof record.bytes - 1);
    record.values[0] = value;
    queueOther(record, counts_.events);
}

void Receiver::headsetChanged(const HeadsetTable::Change& change) {
    const std::string& address = headsets_.headsets()[static_cast<std::size_t>(change.number)].address;
    if (change.connected) {
        newConnection(change.number, change.index);
    } else {
        listener_.left(change.index);
        if (conversation_.disconnected(address)) {
            listener_.conversationMoved();
        }
    }
    event(change.connected ? VELMORA_EVENT_CONNECTED : VELMORA_EVENT_DISCONNECTED, change.number, change.index,
          address);
}

/// What its forerunner at this index left unfinished is not its own, and its counters begin anew.
void Receiver::newConnection(int number, int index) {
    reader_.dropPending(index);
    if (const auto place = static_cast<std::size_t>(number); place < lines_.size() && lines_[place]) {
        lines_[place]->time.reconnected();
    }
}

void Receiver::text(TextKind kind, std::string_view text, Nanoseconds arrival) {
    now_ = arrival;
    listener_.said(text);
    bool moved = false;
    switch (kind) {
        case TextKind::kConnected:
            connectionReport(text);
            break;
        case TextKind::kDisconnected:
            if (const auto address = protocol::readDisconnectionReport(text)) {
                headsets_.disconnected(*address);
            }
            break;
        case TextKind::kList:
            listReply(text);
            break;
        case TextKind::kBootup:
            dongleRestarted();
            break;
        case TextKind::kScanLine:
            scanLine(text);
            moved = true;
            break;
        case TextKind::kScanFinished:
            moved = conversation_.scanEnded();
            break;
        case TextKind::kGroupConnectionFinished:
            moved = conversation_.connectionEnded();
            break;
        case TextKind::kPong:
            break;
        case TextKind::kOther:
            if (text.starts_with("Start scan")) {
                conversation_.scanStarted();
            }
            break;
    }
    if (moved) {
        listener_.conversationMoved();
    }
}

void Receiver::connectionReport(std::string_view text) {
    const auto report = protocol::readConnectionReport(text);
    // A report without a usable index is damaged: whose data came under which index would be a guess.
    if (!report || !isAddress(report->address) || !report->index || *report->index < 0 ||
        *report->index >= protocol::kHeadsets) {
        return;
    }
    const bool before = headsets_.findConnected(report->address).has_value();
    headsets_.connected(report->address, *report->index);
    if (const auto number = headsets_.findConnected(report->address)) {
        // One that came back by itself while the host asked for it is connected once more.
        if (conversation_.connected(report->address, *number, *report->index) && before) {
            newConnection(*number, *report->index);
        }
    }
}

void Receiver::listReply(std::string_view text) {
    const auto list = protocol::readListReply(text);
    if (!list) {
        return;
    }
    std::vector<std::string_view> listed;
    if (!list->none) {
        protocol::forEachListEntry(list->entries, [&](std::string_view address, std::int32_t index) {
            if (isAddress(address) && index >= 0 && index < protocol::kHeadsets) {
                listed.push_back(address);
                headsets_.connected(address, index);
            }
        });
    }
    headsets_.disconnectAllBut(listed);
}

void Receiver::scanLine(std::string_view text) {
    std::string line(text);
    std::erase(line, ':');
    const auto fields = protocol::readScanFields(line);
    if (!fields || !isAddress(fields->address)) {
        return;
    }
    protocol::ScanFields plain = *fields;
    while (plain.name.ends_with('\r')) {
        plain.name.remove_suffix(1);
    }
    conversation_.scanFound(plain, headsets_.found(plain.address, plain.name));
}

void Receiver::dongleRestarted() {
    listener_.restarted();  // before all of them are seen to have left, which is not why calls end
    headsets_.disconnectAll(true);
    for (int index = 0; index < protocol::kHeadsets; ++index) {
        reader_.dropPending(index);
    }
    event(VELMORA_EVENT_RESTARTED, -1, -1, {});
}

// ------------------------------------------------------------------------------------------------ counts

velmora_statistics Receiver::statistics() const {
    const ReaderCounts& read = reader_.counts();
    velmora_statistics all = counts_;
    all.bytes = read.bytes;
    all.stray_bytes = read.strayBytes;
    all.damaged_headers = read.damagedHeaders;
    all.texts = read.texts;
    for (const std::uint64_t count : read.incompleteFrames) {
        all.incomplete_frames += count;
    }
    return all;
}

void Receiver::headsetStatistics(int number, velmora_headset_statistics& statistics) const {
    const auto place = static_cast<std::size_t>(number);
    if (place >= lines_.size() || lines_[place] == nullptr) {
        return;
    }
    const Line& line = *lines_[place];
    for (int slot = 0; slot < TimeLine::kSlots; ++slot) {
        const ChannelCounts& counts = line.time.counts(slot);
        velmora_channel_statistics& to = statistics.channels[slot];
        to = {counts.packets,
              counts.lost,
              counts.repeated,
              counts.damagedCounters,
              line.dropped[static_cast<std::size_t>(slot)],
              line.time.rate(slot)};
    }
}

}  // namespace velmora
