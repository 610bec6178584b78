#include "view/feed.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

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

void Feed::take(std::span<const velmora_record> records) noexcept {
    const bool watched = watched_.load(std::memory_order_relaxed);
    while (!records.empty()) {
        const auto kind = kindOf(records.front());
        std::size_t count = 1;
        while (count < records.size() && kindOf(records[count]) == kind) {
            ++count;
        }
        const auto alike = records.first(count);
        records = records.subspan(count);
        if (!kind || (!watched && kind != Kind::Event)) {
            continue;
        }
        try {
            if (kind == Kind::Event) {  // also for those who look on only later
                for (const velmora_record& record : alike) {
                    put(eventMessage(record.time, record.headset, record.code, textOf(record)));
                }
                continue;
            }
            Batch batch(*kind);
            for (const velmora_record& record : alike) {
                batch.add(record);
            }
            put(batch.take());
        } catch (const std::bad_alloc&) {
            skip(kind == Kind::Event ? 0 : count);
        }
    }
}

void Feed::put(Message message) noexcept {
    const std::uint64_t packets = message.packets;
    try {
        if (skippedMessages_ > 0) {
            SharedMessage told = std::make_shared<const Message>(skippedMessage(skippedMessages_, skippedPackets_));
            if (!messages_.push(told)) {
                skip(packets);
                return;
            }
            skippedMessages_ = skippedPackets_ = 0;
        }
        SharedMessage shared = std::make_shared<const Message>(std::move(message));
        if (!messages_.push(shared)) {
            skip(packets);
        }
    } catch (const std::bad_alloc&) {
        skip(packets);
    }
}

void Feed::skip(std::uint64_t packets) {
    ++skippedMessages_;
    skippedPackets_ += packets;
}

SharedMessage Feed::next() {
    auto message = messages_.pop();
    return message ? std::move(*message) : nullptr;
}

}  // namespace velmora::view
