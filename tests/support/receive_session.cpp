#include "support/receive_session.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <type_traits>
#include <utility>

namespace test {

namespace {

std::string call(const char* name, std::initializer_list<std::int64_t> numbers) {
    std::string text = name;
    for (const std::int64_t number : numbers) {
        text += " " + std::to_string(number);
    }
    return text;
}

}  // namespace

std::string rawCall(int device, int channel, const std::vector<int>& samples) {
    std::string text = call("raw", {device, channel, static_cast<std::int64_t>(samples.size())});
    if (std::all_of(samples.begin(), samples.end(), [](int sample) { return sample == 0; })) {
        return text + " zeros\n";
    }
    std::array<char, 16> number;
    for (const int sample : samples) {
        text.append(1, ' ').append(number.begin(), std::to_chars(number.begin(), number.end(), sample).ptr);
    }
    return text + "\n";
}

std::string batteryCall(int device, unsigned level, unsigned value) {
    return call("battery", {device, level, value}) + "\n";
}

std::string postCall(int device, int v1, int v2, int v3, int v4, const unsigned* v) {
    return call("post", {device, v1, v2, v3, v4, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]}) + "\n";
}

std::string postCall(const Post& post) {
    return postCall(0, post.value1, post.value2, post.value3, post.selector == 8 ? post.fourth : 0, post.bands.data());
}

std::string responseCall(int device, const Bytes& frame) {
    return call("response", {device, frame[2]}) + " " + hexOf(frame) + "\n";
}

Bytes Packet::bytes() const {
    return rawFrame(channels > 0 ? multiChannel(channels) : singleChannel(channel), samples(seed), counter);
}

std::string Packet::calls(bool merged) const {
    const std::vector<int> slots = samples(seed);
    if (channels == 0) {
        return rawCall(device, channel, slots);
    }
    const int used = kSlots / channels * channels;  // every channel has as many samples
    if (merged) {
        return rawCall(device, -channels, {slots.begin(), slots.begin() + used});
    }
    std::string calls;
    for (int first = 0; first < channels; ++first) {
        std::vector<int> own;
        for (int slot = first; slot < used; slot += channels) {
            own.push_back(slots[static_cast<std::size_t>(slot)]);
        }
        calls += rawCall(device, first, own);
    }
    return calls;
}

bool isHeld(const kxorbeta_if::SpinLock& lock) {
    using Word = std::atomic<std::uint32_t>;
    static_assert(std::is_standard_layout_v<kxorbeta_if::SpinLock> && sizeof(kxorbeta_if::SpinLock) == sizeof(Word));
    return reinterpret_cast<const Word&>(lock).load() != 0;
}

struct ReceiveSession::Entries {
    static ReceiveSession& session(void* context) { return *static_cast<ReceiveSession*>(context); }

    static void raw(void* context, int device, int channel, int* samples, int count) {
        session(context).note(rawCall(device, channel, {samples, samples + count}));
        if (session(context).onRaw) {
            session(context).onRaw();
        }
    }
    static void event(void* context, unsigned int code, unsigned int value, void* detail) {
        ReceiveSession& self = session(context);
        self.note(call("event", {code, value}) + " " + static_cast<const char*>(detail) +
                  (isHeld(self.callbacks.eventLock) ? "\n" : " without its lock\n"));
        if (self.onEvent) {
            self.onEvent();
        }
    }
    static void battery(void* context, int device, unsigned int level, unsigned int value) {
        session(context).note(batteryCall(device, level, value));
    }
    static void post(void* context, int device, unsigned char v1, unsigned char v2, unsigned char v3, unsigned char v4,
                     unsigned int* values) {
        session(context).note(postCall(device, v1, v2, v3, v4, values));
    }
    static void response(void* context, int device, unsigned char command, unsigned char* frame, int length) {
        ReceiveSession& self = session(context);
        self.note(responseCall(device, {frame, frame + length}) + (command == frame[2] ? "" : "of another command\n") +
                  (isHeld(self.callbacks.responseLock) ? "" : "without its lock\n"));
        if (self.onResponse) {
            self.onResponse(frame, length);
        }
    }
};

ReceiveSession::ReceiveSession(int verbosity) : log_(verbosity) {
    callbacks.rawData = &Entries::raw;
    callbacks.battInfo = &Entries::battery;
    callbacks.postData = &Entries::post;
    callbacks.response = &Entries::response;
    callbacks.event = &Entries::event;
    callbacks.context = this;
    flags.recording = true;
    flags.ctlFraming = true;
    tables.deviceStreams.claim();  // the session's thread is the one that decodes
}

std::string ReceiveSession::take() {
    note("");
    return std::exchange(trace_, {});
}

void ReceiveSession::note(const std::string& text) {
    for (const std::string& line : log_.take()) {
        trace_ += line + "\n";
    }
    trace_ += text;
}

std::size_t ReceiveSession::decode(bool direct, const Bytes& bytes, int device) {
    const ExactBlock block(bytes);
    return direct ? kxorbeta_if::decodeDirectFrames(decoder, block.span())
                  : kxorbeta_if::decodeDeviceFrames(decoder, device, block.span());
}

std::string ReceiveSession::read(std::span<const std::uint8_t> bytes) {
    feed(buffer, framer, bytes);
    return take();
}

std::string ReceiveSession::parse(const Bytes& block) {
    framer.parse(ExactBlock(block).span(), history);
    return take();
}

}  // namespace test
