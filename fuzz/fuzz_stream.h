#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/text.h"
#include "core/report_router.h"
#include "core/stream_framer.h"
#include "fuzz_support.h"
#include "support/feed.h"

namespace fuzz {

/// Callbacks that read everything they are handed and insist on what the host is promised.
struct Host {
    kxorbeta_if::ReceiveTables* tables = nullptr;
    bool restarts = false;  // starts data collection inside every data callback
    bool framed = false;

    void install(kxorbeta_if::CallbackTable& callbacks) {
        callbacks.context = this;
        callbacks.rawData = [](void* context, int device, int channel, int* samples, int count) {
            Host& host = *static_cast<Host*>(context);
            host.called(device);
            require(channel >= -15 && channel <= 15 && count > 0 && count <= 15 * 112 && (channel < 0 || count <= 112));
            for (const int sample : std::span(samples, static_cast<std::size_t>(count))) {
                require(sample >= -32768 && sample <= 32767);
            }
        };
        callbacks.battInfo = [](void* context, int device, unsigned int level, unsigned int value) {
            static_cast<Host*>(context)->called(device);
            require(level <= 255 && value <= 6300 && value % 100 == 0);
        };
        callbacks.postData = [](void* context, int device, unsigned char, unsigned char, unsigned char, unsigned char,
                                unsigned int* values) {
            static_cast<Host*>(context)->called(device);
            require(device == 0 && std::all_of(values, values + 8, [](unsigned v) { return v <= 0xFFFFFF; }));
        };
        callbacks.response = [](void* context, int device, unsigned char command, unsigned char* frame, int length) {
            Host& host = *static_cast<Host*>(context);
            require(device >= 0 && device <= 15 && (host.framed || device == 0));
            require((length == 8 || length == 16) && frame[0] == 0xAA && frame[2] == command);
            frame[length - 1] ^= 0xFF;
        };
    }

    void called(int device) {
        require(device >= 0 && device <= 15 && (framed || device == 0));
        if (restarts) {
            tables->reset();
        }
    }
};

/// Reads a stream as the link thread would: reports first, then data. The first byte holds switches, the next four the
/// lengths of the reads, which take turns; the rest is the stream.
inline void readStream(std::span<const std::uint8_t> input, bool framed) {
    if (input.size() < 5) {
        return;
    }
    const unsigned switches = input[0];
    const auto lengths = input.subspan(1, 4);
    input = input.subspan(5);

    const Log log((switches & 1) != 0);
    kxorbeta_if::Flags flags;
    flags.rawDump = (switches & 2) != 0;
    flags.mergedChannels = (switches & 4) != 0;
    flags.recording = (switches & 8) == 0;
    flags.ctlFraming = framed;
    kxorbeta_if::CallbackTable callbacks;
    kxorbeta_if::ReceiveTables tables;
    Host host{&tables, (switches & 16) != 0, framed};
    host.install(callbacks);
    tables.deviceStreams.claim();
    kxorbeta_if::StreamFramer framer(tables, callbacks, flags);
    const auto buffer = std::make_unique<kxorbeta_if::ReceiveBuffer>(flags);
    kxorbeta_if::DeviceRegistry registry;
    const auto reports = std::make_unique<kxorbeta_if::ReportRouter>(kxorbeta_if::ReportTargets{registry, callbacks});
    for (std::size_t read = 0; !input.empty(); ++read) {
        const std::size_t length = std::min<std::size_t>(1 + 40u * lengths[read % 4], input.size());
        const auto chunk = input.first(length);
        input = input.subspan(length);
        if (!reports->route(kxorbeta_if::asText(chunk))) {  // or the dongle has restarted, and nobody parses the chunk
            test::feed(*buffer, framer, chunk);
        }
        // What waits is never more than one incomplete frame.
        for (int device = 0; device < protocol::kHeadsets; ++device) {
            require(tables.deviceStreams[device].bytes().size() < 230);
        }
        require(framed || buffer->history().length() < 230);
    }
}

}  // namespace fuzz
