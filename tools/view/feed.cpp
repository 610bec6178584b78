#include "view/feed.h"

#include <algorithm>
#include <memory>

namespace velmora::view {
namespace {

std::optional<Kind> kindOf(const velmora_record& record) {
    switch (record.kind) {
        case VELMORA_RAW:
            return Kind::Samples;
        case VELMORA_PROCESSED:
            return Kind::Processed;
        case VELMORA_EVENT:
            return Kind::Event;
        default:
            return std::nullopt;  // levels of batteries are part of the status
    }
}

std::string_view textOf(const velmora_record& record) {
    const auto* const text = reinterpret_cast<const char*>(record.bytes);
    return {text, static_cast<std::size_t>(std::find(text, text + sizeof record.bytes, '\0') - text)};
}

}  // namespace

void Feed::take(std::span<const velmora_record> records) {
    if (!watched_.load(std::memory_order_relaxed)) {
        return;
    }
    for (std::size_t i = 0; i < records.size();) {
        const auto kind = kindOf(records[i]);
        if (!kind || kind == Kind::Event) {
            const velmora_record& record = records[i++];
            if (kind) {
                put(eventMessage(record.time, record.headset, record.code, textOf(record)));
            }
            continue;
        }
        Batch batch(*kind);
        for (; i < records.size() && kindOf(records[i]) == kind; ++i) {
            batch.add(records[i]);
        }
        put(batch.take());
    }
}

void Feed::put(Message message) {
    if (skippedMessages_ > 0) {
        SharedMessage told = std::make_shared<const Message>(skippedMessage(skippedMessages_, skippedPackets_));
        if (messages_.push(told)) {
            skippedMessages_ = skippedPackets_ = 0;
        }
    }
    SharedMessage shared = std::make_shared<const Message>(std::move(message));
    if (skippedMessages_ > 0 || !messages_.push(shared)) {
        ++skippedMessages_;
        skippedPackets_ += shared->packets;
    }
}

SharedMessage Feed::next() {
    auto message = messages_.pop();
    return message ? std::move(*message) : nullptr;
}

}  // namespace velmora::view
