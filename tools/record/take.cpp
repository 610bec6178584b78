#include "record/take.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

#include "record/csv_track_writer.h"
#include "record/edf_writer.h"
#include "record/json_text.h"

namespace velmora::record {

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr double kNanosecond = 1e-9;
constexpr double kHorizonSeconds = 2;
constexpr std::int64_t kHorizonPackets = 4;  // of the longest, at least
constexpr std::int64_t kLongestPacket = 112;
// Before that a measured rate says little.
constexpr std::int64_t kFirstRate = 1'000'000'000;
constexpr std::int64_t kMinute = 60'000'000'000;
// Nobody told when; it goes to the beginning.
constexpr std::int64_t kBeginning = std::numeric_limits<std::int64_t>::min() / 2;
// For a recording that ended before two packets came.
constexpr double kAssumedRate = 500;

std::string hertz(double rate) {
    return edfNumber(std::round(rate * 1000) / 1000, 12) + " Hz";
}

}  // namespace

Take::Take(const Options& options, Headset headset, const Start& start, Files& files, std::string base,
           const Recording::Notice& notice)
    : options_(options),
      headset_(std::move(headset)),
      start_(start),
      files_(files),
      base_(std::move(base)),
      notice_(notice),
      rate_(options.rate) {}

void Take::take(const velmora_record& record) {
    switch (record.kind) {
        case VELMORA_RAW:
            raw(record);
            break;
        case VELMORA_BATTERY:
            battery(record);
            break;
        case VELMORA_EVENT:
            event(record);
            break;
        default:
            break;
    }
}

void Take::raw(const velmora_record& record) {
    const bool multi = (record.flags & VELMORA_FLAG_MULTI) != 0;
    const std::size_t first = multi ? 0 : record.channel;
    const std::size_t end = first + (multi ? record.channels : 1U);
    if (record.count == 0 || end > kTrackChannels) {
        return;
    }
    for (std::size_t channel = first; channel < end; ++channel) {
        ChannelCounts& counts = counts_[channel];
        ++counts.packets;
        counts.lost += record.lost;
        counts.dropped += record.dropped;
    }
    const bool firstPacket = sum_.packets == 0;
    ++sum_.packets;
    sum_.lost += record.lost;
    sum_.dropped += record.dropped;

    if (!firstPacket && record.time - lastTime_ > kLongestGap) {
        settleFirstSeconds();
        endPart(record.time - lastTime_);
        lastTime_ = record.time;
        lastSample_ = record.sample + record.count;
        // Other channels' next packets can begin a little earlier.
        const std::int64_t origin = record.sample - 2 * record.count;
        beginPart(origin, utcOf(origin));
    }
    if (firstPacket) {
        firstTime_ = record.time;
        origin_ = record.sample;
    }
    lastTime_ = record.time;
    lastSample_ = record.sample + record.count;
    fit_.add(lastTime_, lastSample_);

    const auto channels = static_cast<std::uint16_t>((1U << end) - (1U << first));
    if (!settled_) {
        origin_ = std::min(origin_, record.sample);
        channels_ = static_cast<std::uint16_t>(channels_ | channels);
        arrivals_.push_back({record, 0, {}});
        if (lastTime_ - firstTime_ >= Recording::kFirstSeconds &&
            (options_.rate > 0 || usualRate(measuredRate()) || lastTime_ - firstTime_ >= Recording::kRateTimeout)) {
            settleFirstSeconds();
        }
        return;
    }
    for (std::size_t channel = first; channel < end; ++channel) {
        const auto bit = static_cast<std::uint16_t>(1U << channel);
        if (((channels_ | lateChannels_) & bit) == 0) {
            lateChannels_ = static_cast<std::uint16_t>(lateChannels_ | bit);
            const std::string text = "channel " + std::to_string(channel) + " appears and is not recorded";
            note(record.time, text);
            notice_(headset_.address + ": " + text +
                    ", because it was not there in the first seconds; to have it, begin a new recording");
        }
    }
    apply({record, 0, {}});
    if (!rateTold_ && lastTime_ - firstTime_ >= kMinute && std::abs(measuredRate() - rate_) > kRateTolerance * rate_) {
        rateTold_ = true;
        notice_(headset_.address + ": the headset makes " + hertz(measuredRate()) + ", but the file says " +
                hertz(rate_) + "; check --rate. The measured rate stands in the .json file");
    }
}

void Take::event(const velmora_record& record) {
    switch (record.code) {
        case VELMORA_EVENT_CONNECTED:
            connected_ = true;
            note(record.time, "headset connected");
            break;
        case VELMORA_EVENT_DISCONNECTED:
            connected_ = false;
            note(record.time, "headset disconnected");
            if (settled_) {
                apply({record, 0, {}});
            } else {
                arrivals_.push_back({record, 0, {}});
            }
            break;
        case VELMORA_EVENT_RESTARTED:
            note(record.time, "dongle restarted");
            break;
        case VELMORA_EVENT_GONE:
            note(record.time, "dongle unplugged");
            break;
        case VELMORA_EVENT_OVERRUN:
            note(record.time, "computer too slow, packets dropped");
            break;
        default:
            break;
    }
}

void Take::battery(const velmora_record& record) {
    const auto level = static_cast<int>(record.values[0]);
    if (level == batteryLevel_) {
        return;
    }
    batteryLevel_ = level;
    note(record.time, "battery " + std::to_string(level) + ", " + std::to_string(record.values[1]));
}

void Take::note(std::int64_t time, const std::string& text) {
    std::int64_t sample = kBeginning;
    if (sum_.packets > 0) {
        sample = lastSample_ + std::llround(static_cast<double>(time - lastTime_) * kNanosecond * presentRate());
    }
    const Arrival arrival{{}, sample, text};
    if (settled_) {
        apply(arrival);
    } else {
        arrivals_.push_back(arrival);
    }
}

void Take::apply(const Arrival& arrival) {
    if (!arrival.note.empty()) {
        track_->note(arrival.noteSample, arrival.note);
    } else if (arrival.record.kind == VELMORA_RAW) {
        track_->packet(arrival.record);
    } else {
        track_->disconnected();
    }
}

double Take::presentRate() const {
    if (rate_ > 0) {
        return rate_;
    }
    return usualRate(measuredRate(), kEarlyRateTolerance).value_or(std::max(measuredRate(), 0.0));
}

std::int64_t Take::utcOf(std::int64_t sample) const {
    // A packet arrives when its last sample has been made, as far as anybody can tell.
    const double before = static_cast<double>(lastSample_ - sample) / presentRate();
    return start_.utc + (lastTime_ - start_.time) - std::llround(before * 1e9);
}

void Take::settleFirstSeconds() {
    if (settled_) {
        return;
    }
    const bool enough = lastTime_ - firstTime_ >= Recording::kFirstSeconds;
    const double measured = measuredRate();
    const auto usual = usualRate(measured);
    if (rate_ > 0) {
        rateSource_ = "given";
    } else if (usual) {
        rate_ = *usual;
        rateSource_ = enough ? "usual" : "usual, measured over less than 5 s";
    } else if (measured >= 1) {
        // An early measurement is worth less than the habits of headsets.
        rate_ = enough ? std::round(measured * 1000) / 1000 : presentRate();
        rateSource_ = "measured";
        unusualRate_ = headset_.address + ": the headset makes " + hertz(measured) +
                       ", which is none of the usual rates; give its rate with --rate";
        if (!enough) {
            unusualRate_ += " (this was measured over less than 5 s)";
        }
    } else {
        rate_ = kAssumedRate;
        rateSource_ = "assumed";
        unusualRate_ = headset_.address + ": too few packets came to measure the rate; the file says " +
                       hertz(kAssumedRate) + ". Give the rate with --rate";
    }
    buildFirstSeconds();
    settled_ = true;
    arrivals_ = {};
}

void Take::buildFirstSeconds() {
    const double rate = rate_;
    rate_ = presentRate();
    // From the latest packet back: an early estimate of the rate counts for little then.
    beginPart(origin_, utcOf(origin_));
    rate_ = rate;
    for (const Arrival& arrival : arrivals_) {
        apply(arrival);
    }
}

void Take::beginPart(std::int64_t origin, std::int64_t utc) {
    TrackHeader header;
    header.rate = presentRate();
    for (std::size_t channel = 0; channel < kTrackChannels; ++channel) {
        if ((channels_ >> channel & 1U) != 0) {
            header.labels.push_back(label(header.labels.size(), channel));
        }
    }
    header.unit = options_.unit;
    header.gain = options_.gain;
    header.equipment = "headset_" + headset_.address;
    header.utc = utc;
    header.localOffset = start_.localOffset;
    if (!writer_) {
        const IfExists ifExists = options_.force ? IfExists::Overwrite : IfExists::Refuse;
        const std::string path = pathOf(parts_.size());
        if (options_.target.format == Format::Edf) {
            writer_ = std::make_unique<EdfWriter>(files_, path + ".edf", ifExists);
        } else {
            writer_ = std::make_unique<CsvTrackWriter>(files_, path, ifExists);
        }
        parts_.push_back({path + (options_.target.format == Format::Edf ? ".edf" : ".csv"), utc});
    }
    parts_.back().utc = utc;
    writer_->begin(header);
    const auto horizon =
        std::max(std::llround(kHorizonSeconds * header.rate), static_cast<long long>(kHorizonPackets * kLongestPacket));
    track_.emplace(*writer_, channels_, header.labels, origin, horizon);
}

void Take::endPart(std::int64_t gap) {
    track_->note(lastSample_, "no data for " + std::to_string(gap / kSecond) + " s; the next file goes on");
    finish();
}

void Take::commit() {
    if (!settled_) {
        if (sum_.packets == 0 || lastTime_ - firstTime_ < kFirstRate || presentRate() < 1) {
            return;
        }
        buildFirstSeconds();
    }
    if (track_) {
        track_->commit();
    }
}

void Take::finish() {
    if (!settled_ && sum_.packets > 0) {
        settleFirstSeconds();
    }
    if (!track_) {
        return;
    }
    track_->finish();
    track_.reset();
    bytesBefore_ += writer_->size();
    writer_.reset();
}

HeadsetProgress Take::progress() const {
    HeadsetProgress progress;
    progress.headset = headset_;
    if (const double rate = presentRate(); rate > 0) {
        progress.seconds = static_cast<double>(lastSample_ - origin_) / rate;
    }
    progress.packets = sum_.packets;
    progress.lost = sum_.lost + sum_.dropped;
    progress.battery = batteryLevel_;
    progress.measuredRate = measuredRate();
    progress.rate = settled_ ? rate_ : 0;
    progress.connected = connected_;
    if (!parts_.empty()) {
        progress.file = parts_.back().path;
    }
    return progress;
}

std::uint64_t Take::bytes() const {
    return bytesBefore_ + (writer_ ? writer_->size() : 0);
}

std::string Take::json() const {
    const auto counts = [](const ChannelCounts& of) {
        return "\"packets\": " + std::to_string(of.packets) + ", \"lost\": " + std::to_string(of.lost) +
               ", \"dropped\": " + std::to_string(of.dropped);
    };
    std::string text = "    {\n      \"address\": " + jsonText(headset_.address) +
                       ",\n      \"name\": " + jsonText(headset_.name) + ",\n      \"files\": [";
    const char* separator = "";
    for (const Part& part : parts_) {
        const std::size_t slash = part.path.find_last_of("/\\");
        text += separator + ("{\"file\": " + jsonText(part.path.substr(slash == std::string::npos ? 0 : slash + 1))) +
                ", \"start_utc\": " + jsonTime(part.utc) + '}';
        separator = ", ";
    }
    text += "],\n      \"rate\": " + jsonNumber(presentRate()) +
            ",\n      \"rate_source\": " + jsonText(settled_ ? rateSource_ : "still being measured") +
            ",\n      \"measured_rate\": " + jsonNumber(measuredRate()) + ",\n      " + counts(sum_) +
            ",\n      \"battery\": " + (batteryLevel_ < 0 ? "null" : std::to_string(batteryLevel_)) +
            ",\n      \"channels\": [";
    separator = "\n";
    std::size_t place = 0;
    for (std::size_t channel = 0; channel < kTrackChannels; ++channel) {
        const bool recorded = (channels_ >> channel & 1U) != 0;
        if (!recorded && counts_[channel].packets == 0) {
            continue;
        }
        text += separator + ("        {\"channel\": " + std::to_string(channel)) +
                ", \"label\": " + (recorded ? jsonText(label(place++, channel)) : "null") + ", " +
                counts(counts_[channel]) + '}';
        separator = ",\n";
    }
    return text + "\n      ]\n    }";
}

void Take::check() const {
    const IfExists ifExists = options_.force ? IfExists::Overwrite : IfExists::Refuse;
    if (options_.target.format == Format::Edf) {
        files_.check(base_ + ".edf", ifExists);
    } else {
        files_.check(base_ + ".csv", ifExists);
        files_.check(base_ + "-events.csv", ifExists);
    }
}

std::string Take::pathOf(std::size_t part) const {
    return part == 0 ? base_ : base_ + '-' + std::to_string(part + 1);
}

std::string Take::label(std::size_t place, std::size_t channel) const {
    return place < options_.labels.size() ? options_.labels[place] : "ch" + std::to_string(channel);
}

}  // namespace velmora::record
