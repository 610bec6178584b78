#include "dongle/headset_frames.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <string>

namespace dongle {

namespace {

constexpr std::size_t kSinePeriod = 256;

std::array<int, kSinePeriod> makeSine() {
    std::array<int, kSinePeriod> sine{};
    for (std::size_t i = 0; i < sine.size(); ++i) {
        const double angle = 2.0 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(kSinePeriod);
        sine[i] = static_cast<int>(std::lround(8000.0 * std::sin(angle)));
    }
    return sine;
}

std::uint8_t byteOf(std::uint64_t value) {
    return static_cast<std::uint8_t>(value & 0xFF);
}

Bytes rawFrame(int channelByte, std::span<const std::int16_t> samples, std::uint8_t counter) {
    Bytes frame(kRawFrameSize, 0);
    frame[0] = 0x55;
    frame[1] = 0x55;
    frame[2] = 0xE2;
    frame[3] = static_cast<std::uint8_t>(channelByte);
    std::size_t at = 4;
    for (const std::int16_t sample : samples.first(std::min<std::size_t>(samples.size(), kSamplesPerFrame))) {
        const auto bits = static_cast<std::uint16_t>(sample);
        frame[at++] = byteOf(bits >> 8U);
        frame[at++] = byteOf(bits);
    }
    frame[228] = counter;
    return frame;
}

Bytes response(std::size_t size, std::uint8_t mark, std::uint8_t command, std::span<const std::uint8_t> data) {
    Bytes frame(size, 0);
    frame[0] = 0xAA;
    frame[1] = mark;
    frame[2] = command;
    std::copy_n(data.begin(), std::min(data.size(), size - 4), frame.begin() + 3);
    frame[size - 1] = checkByte(std::span(frame).subspan(2, size - 3));
    return frame;
}

}  // namespace

std::int16_t sampleValue(int device, int channel, std::uint64_t n) {
    static const std::array<int, kSinePeriod> sine = makeSine();
    const auto step = static_cast<std::uint64_t>(channel) + 1;
    const int wave = sine[(n * step) % kSinePeriod];
    const int ramp = 8 * static_cast<int>(n % 1024);
    return static_cast<std::int16_t>(wave + ramp + 512 * device + 32 * channel);
}

PostValues postValues(int device, std::uint64_t n) {
    PostValues values;
    values.value1 = byteOf(n);
    values.selector = byteOf(n % 10);
    values.value2 = static_cast<std::uint8_t>(device);
    values.value3 = byteOf(3 * n);
    values.value4 = byteOf(5 * n + 1);
    for (std::uint32_t i = 0; i < values.bands.size(); ++i) {
        values.bands[i] =
            (static_cast<std::uint32_t>(device) << 20U) | (i << 16U) | static_cast<std::uint32_t>(n & 0xFFFF);
    }
    return values;
}

Bytes batteryFrame(std::uint8_t value, std::uint8_t extra) {
    return {0x55, 0x55, 0x02, 0x00, value, static_cast<std::uint8_t>(extra & 0x3F), 0x00, 0x00};
}

Bytes postFrame(const PostValues& values) {
    Bytes frame(36, 0);
    frame[0] = 0x55;
    frame[1] = 0x55;
    frame[2] = 0x20;
    frame[4] = values.value1;
    frame[5] = values.selector;
    frame[6] = values.value2;
    frame[7] = values.value4;
    frame[8] = values.value3;
    std::size_t at = 11;
    for (const std::uint32_t band : values.bands) {
        frame[at++] = byteOf(band >> 16U);
        frame[at++] = byteOf(band >> 8U);
        frame[at++] = byteOf(band);
    }
    return frame;
}

Bytes singleChannelFrame(int channel, std::span<const std::int16_t> samples, std::uint8_t counter) {
    return rawFrame(0x80 | (channel & 0x0F), samples, counter);
}

Bytes multiChannelFrame(int channels, std::span<const std::int16_t> interleaved, std::uint8_t counter) {
    return rawFrame(0x40 | (channels & 0x0F), interleaved, counter);
}

Bytes shortResponse(std::uint8_t mark, std::uint8_t command, std::span<const std::uint8_t> data) {
    return response(8, mark, command, data);
}

Bytes longResponse(std::uint8_t mark, std::uint8_t command, std::span<const std::uint8_t> data) {
    return response(16, mark, command, data);
}

Bytes dataEnvelope(int index, std::span<const std::uint8_t> payload) {
    const std::string header = "AT+DAT" + std::to_string(index) + ":" + std::to_string(payload.size()) + "#";
    Bytes frame;
    frame.reserve(header.size() + payload.size());
    frame.insert(frame.end(), header.begin(), header.end());
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

std::uint8_t checkByte(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum += byte;
    }
    return static_cast<std::uint8_t>(~sum & 0xFFU);
}

}  // namespace dongle
