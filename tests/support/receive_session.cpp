#include "support/receive_session.h"

#include <array>
#include <atomic>
#include <charconv>
#include <iterator>
#include <type_traits>
#include <utility>

namespace test {

namespace {

template <typename... Numbers>
std::string call(const char* name, Numbers... numbers) {
    std::string text = name;
    ((text += ' ', text += std::to_string(numbers)), ...);
    return text;
}

}  // namespace

std::string rawCall(int device, int channel, const std::vector<int>& samples) {
    std::string text = call("raw", device, channel, samples.size());
    std::array<char, 16> number;
    for (const int sample : samples) {
        const auto end = std::to_chars(number.begin(), number.end(), sample).ptr;
        text.append(1, ' ').append(number.begin(), end);
    }
    return text;
}

std::string batteryCall(int device, unsigned level, unsigned value) {
    return call("battery", device, level, value);
}

std::string postCall(const Post& post) {
    const auto& b = post.bands;
    return call("post", 0, post.value1, post.value2, post.value3, post.fourth, b[0], b[1], b[2], b[3], b[4], b[5], b[6],
                b[7]);
}

std::string responseCall(int device, const Bytes& frame) {
    std::string text = call("response", device, frame[2], frame.size());
    for (const std::uint8_t byte : frame) {
        text += ' ';
        text += std::to_string(byte);
    }
    return text;
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
    }
    static void battery(void* context, int device, unsigned int level, unsigned int value) {
        session(context).note(batteryCall(device, level, value));
    }
    static void post(void* context, int device, unsigned char value1, unsigned char value2, unsigned char value3,
                     unsigned char value4, unsigned int* v) {
        session(context).note(
            call("post", device, value1, value2, value3, value4, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]));
    }
    static void response(void* context, int device, unsigned char command, unsigned char* frame, int length) {
        ReceiveSession& self = session(context);
        std::string text = responseCall(device, {frame, frame + length});
        if (command != frame[2]) {
            text += " of another command";
        }
        if (!isHeld(self.callbacks.responseLock)) {
            text += " without its lock";
        }
        self.note(text);
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
    callbacks.context = this;
    flags.recording = true;
    flags.ctlFraming = true;
    tables.deviceStreams.claim();  // the session's thread is the one that decodes
}

std::vector<std::string> ReceiveSession::take() {
    auto lines = log_.take();
    trace_.insert(trace_.end(), std::make_move_iterator(lines.begin()), std::make_move_iterator(lines.end()));
    return std::exchange(trace_, {});
}

void ReceiveSession::note(const std::string& text) {
    trace_ = take();
    trace_.push_back(text);
    if (onCall) {
        onCall();
    }
}

std::size_t ReceiveSession::decodeDevice(int device, const Bytes& bytes) {
    return kxorbeta_if::decodeDeviceFrames(decoder, device, ExactBlock(bytes).span());
}

std::size_t ReceiveSession::decodeDirect(const Bytes& bytes) {
    return kxorbeta_if::decodeDirectFrames(decoder, ExactBlock(bytes).span());
}

}  // namespace test
