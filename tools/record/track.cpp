#include "record/track.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace velmora::record {

Track::Track(TrackWriter& writer, std::uint16_t channels, std::vector<std::string> labels, std::int64_t origin,
             std::int64_t horizon)
    : writer_(writer), labels_(std::move(labels)), origin_(origin), horizon_(horizon) {
    for (std::size_t channel = 0; channel < kTrackChannels; ++channel) {
        const bool recorded = (channels >> channel & 1U) != 0;
        columnOf_[channel] = recorded ? static_cast<int>(columns_.size()) : -1;
        if (recorded) {
            columns_.emplace_back();
        }
    }
}

void Track::packet(const velmora_record& packet) {
    const bool multi = (packet.flags & VELMORA_FLAG_MULTI) != 0;
    const std::size_t first = multi ? 0 : packet.channel;
    const std::size_t count = multi ? packet.channels : 1;
    if (first + count > kTrackChannels || packet.count * count > std::size(packet.samples)) {
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        const int column = columnOf_[first + i];
        if (column >= 0) {
            place(static_cast<std::size_t>(column), packet.sample - origin_, packet.count, packet.samples + i, count);
        }
    }
}

void Track::place(std::size_t index, std::int64_t from, std::int64_t count, const std::int16_t* samples,
                  std::size_t stride) {
    Column& column = columns_[index];
    const std::int64_t to = from + count;
    if (const std::int64_t start = std::max(column.next, base_); from < start) {
        if (to <= start) {
            return;
        }
        samples += static_cast<std::size_t>(start - from) * stride;
        from = start;
    }
    miss(index, from);
    // A jump far ahead: what lies more than the horizon behind is over.
    settle(to - horizon_);
    if (to > end_) {
        end_ = to;
        present_.resize(static_cast<std::size_t>(end_ - base_));
        samples_.resize(present_.size() * columns_.size());
    }
    from = std::max(from, base_);
    for (auto at = static_cast<std::size_t>(from - base_); at < static_cast<std::size_t>(to - base_); ++at) {
        samples_[at * columns_.size() + index] = *samples;
        present_[at] = static_cast<std::uint16_t>(present_[at] | 1U << index);
        samples += stride;
    }
    column.next = to;
    column.begun = true;
    column.gap = false;
}

void Track::miss(std::size_t index, std::int64_t to) {
    const Column& column = columns_[index];
    if (to > column.next) {
        const std::string_view why = !column.begun ? kBadEdge : column.gap ? kBadGap : kBadLost;
        missing_.push_back({column.next, to, why, static_cast<std::uint16_t>(1U << index)});
    }
}

void Track::disconnected() {
    for (Column& column : columns_) {
        column.gap = column.begun;
    }
}

void Track::note(std::int64_t sample, const std::string& text) {
    writer_.annotate({std::max(sample - origin_, std::int64_t{0}), Annotation::kNoDuration, text});
}

Frames Track::open() const {
    return {samples_, present_};
}

void Track::settle(std::int64_t to) {
    if (to <= base_) {
        return;
    }
    const auto count = static_cast<std::size_t>(std::min(to, end_) - base_);
    const Frames frames = open();
    writer_.append({frames.samples.first(count * columns_.size()), frames.present.first(count)});
    samples_.erase(samples_.begin(), samples_.begin() + static_cast<std::ptrdiff_t>(count * columns_.size()));
    present_.erase(present_.begin(), present_.begin() + static_cast<std::ptrdiff_t>(count));
    if (to > end_) {
        writer_.appendMissing(to - end_);
    }
    base_ = to;
    end_ = std::max(end_, to);
    // No channel can add to what ends before this.
    const auto over = std::stable_partition(missing_.begin(), missing_.end(),
                                            [this](const Missing& missing) { return missing.to > base_; });
    for (Annotation& annotation : texts({over, missing_.end()})) {
        writer_.annotate(std::move(annotation));
    }
    missing_.erase(over, missing_.end());
}

std::vector<Annotation> Track::texts(std::vector<Missing> missing) const {
    const auto key = [](const Missing& one) { return std::tuple(one.from, one.to, one.why); };
    std::sort(missing.begin(), missing.end(), [&](const Missing& a, const Missing& b) { return key(a) < key(b); });
    std::vector<Annotation> result;
    const auto all = static_cast<std::uint16_t>((1U << columns_.size()) - 1);
    for (auto at = missing.begin(); at != missing.end();) {
        const Missing& first = *at;
        std::uint16_t channels = 0;
        for (; at != missing.end() && key(*at) == key(first); ++at) {
            channels = static_cast<std::uint16_t>(channels | at->channels);
        }
        std::string text(first.why);
        if (channels == all) {
            text += " all channels";
        } else {
            const char* separator = " ";
            for (std::size_t i = 0; i < columns_.size(); ++i) {
                if ((channels >> i & 1U) != 0) {
                    text += separator + labels_[i];
                    separator = ", ";
                }
            }
        }
        result.push_back({first.from, first.to - first.from, std::move(text)});
    }
    return result;
}

std::vector<Track::Missing> Track::missingUntil(std::int64_t end) const {
    std::vector<Missing> result = missing_;
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        const Column& column = columns_[i];
        if (end > column.next) {
            // A channel that only is a little behind has lost nothing yet.
            const bool silent = column.begun && end_ - column.next > horizon_;
            const std::string_view why = column.gap ? kBadGap : silent ? kBadLost : kBadEdge;
            result.push_back({column.next, end, why, static_cast<std::uint16_t>(1U << i)});
        }
    }
    return result;
}

void Track::commit() {
    std::int64_t complete = end_;
    for (const Column& column : columns_) {
        complete = std::min(complete, column.next);
    }
    settle(std::max(complete, end_ - horizon_));
    const std::vector<Annotation> annotations = texts(missingUntil(writer_.paddedEnd(end_)));
    writer_.commit(open(), annotations);
}

void Track::finish() {
    const std::vector<Annotation> annotations = texts(missingUntil(writer_.paddedEnd(end_)));
    missing_.clear();
    settle(end_);
    for (const Annotation& annotation : annotations) {
        writer_.annotate(annotation);
    }
    writer_.finish();
}

}  // namespace velmora::record
