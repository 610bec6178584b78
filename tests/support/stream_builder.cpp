#include "support/stream_builder.h"

#include <algorithm>

namespace test {

Bytes bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

std::string stringOf(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

Bytes fromHex(std::string_view digits) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16)));
    }
    return bytes;
}

std::string hexOf(const Bytes& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += {"0123456789ABCDEF"[byte / 16], "0123456789ABCDEF"[byte % 16]};
    }
    return text;
}

Bytes part(const Bytes& bytes, std::size_t from, std::size_t to) {
    const auto all = std::span(bytes).first(std::min(to, bytes.size())).subspan(from);
    return {all.begin(), all.end()};
}

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        append(all, part);
    }
    return all;
}

std::vector<int> samples(unsigned seed) {
    std::vector<int> values;
    unsigned state = seed * 2654435761u + 1;
    const auto byte = [&] {
        state = state * 1664525u + 1013904223u;
        const unsigned value = state >> 24;
        return value == 0x55 || value == 0xAA ? value + 1 : value;
    };
    while (values.size() < kSlots) {
        const unsigned word = byte() << 8 | byte();
        if (word != 0) {
            values.push_back(word < 0x8000 ? static_cast<int>(word) : static_cast<int>(word) - 0x10000);
        }
    }
    values[seed % 100] = 32767;
    values[seed % 100 + 1] = -32768;
    values[seed % 100 + 2] = -1;
    return values;
}

Bytes rawFrame(std::uint8_t channelByte, const std::vector<int>& samples, int counter) {
    Bytes frame{0x55, 0x55, 0xE2, channelByte};
    for (const int sample : samples) {
        const unsigned word = static_cast<unsigned>(sample) & 0xFFFF;
        frame.push_back(static_cast<std::uint8_t>(word / 256));
        frame.push_back(static_cast<std::uint8_t>(word % 256));
    }
    frame.push_back(static_cast<std::uint8_t>(counter));
    frame.push_back(0x33);
    return frame;
}

Bytes batteryFrame(std::uint8_t level, std::uint8_t second) {
    return {0x55, 0x55, 0x02, 0x11, level, second, 0x22, 0x33};
}

Bytes postFrame(const Post& post) {
    Bytes frame{0x55, 0x55, 0x20, 0x11, post.value1, post.selector, post.value2, post.fourth, post.value3, 0x22, 0x33};
    for (const std::uint32_t band : post.bands) {
        append(frame, {static_cast<std::uint8_t>(band / 65536), static_cast<std::uint8_t>(band / 256 % 256),
                       static_cast<std::uint8_t>(band % 256)});
    }
    frame.push_back(0x44);
    return frame;
}

Bytes responseFrame(std::uint8_t second, std::uint8_t command, const Bytes& data) {
    Bytes frame = joined({{0xAA, second, command}, data});
    int sum = command;
    for (const std::uint8_t byte : data) {
        sum += byte;
    }
    frame.push_back(static_cast<std::uint8_t>(255 - sum % 256));
    return frame;
}

Bytes envelope(int device, const Bytes& payload) {
    return joined({bytesOf("AT+DAT" + std::to_string(device) + ":" + std::to_string(payload.size()) + "#"), payload});
}

}  // namespace test
