#include "streams.h"

#include <algorithm>
#include <random>
#include <utility>

namespace bench {

PacketStream::PacketStream(int devices, std::size_t blockSize, Cut cut) {
    constexpr std::size_t kCounterInPacket = 228;
    constexpr std::size_t kBytesOfNextPacket = 130;
    test::Bytes block;
    const auto endBlock = [&] { blocks_.push_back(std::exchange(block, {})); };
    for (int sent = 0;; ++sent) {
        const int device = sent % devices;
        test::Bytes payload = test::rawFrame(test::singleChannel(3), test::samples(static_cast<unsigned>(sent)), 0);
        std::size_t counterFromEnd = payload.size() - kCounterInPacket;
        if (cut == Cut::kInsidePackets) {
            std::rotate(payload.begin(), payload.begin() + kBytesOfNextPacket, payload.end());
            counterFromEnd += kBytesOfNextPacket;
        }
        const test::Bytes frame = test::envelope(device, payload);
        if (bytes_ + frame.size() > kReadSize) {
            break;
        }
        if (block.size() + frame.size() > blockSize) {
            endBlock();
        }
        test::append(block, frame);
        bytes_ += frame.size();
        counters_.push_back({blocks_.size(), block.size() - counterFromEnd, static_cast<std::size_t>(device)});
    }
    endBlock();
}

void PacketStream::damage(unsigned perMille) {
    std::mt19937 random(1);
    for (test::Bytes& block : blocks_) {
        for (std::uint8_t& byte : block) {
            if (random() % 1000 < perMille) {
                byte = static_cast<std::uint8_t>(random());
            }
        }
    }
}

void PacketStream::count() {
    for (const Counter& counter : counters_) {
        blocks_[counter.block][counter.offset] = next_[counter.device]++;
    }
}

std::span<const Flood> floods() {
    using namespace std::string_view_literals;
    static constexpr Flood kFloods[] = {
        {"half headers", "AT+DAT"sv, false, false},
        {"half headers, one far delimiter", "AT+DAT"sv, false, true},
        {"headers without numbers", "AT+DAT#"sv, false, false},
        {"empty frames", "AT+DAT0:0#"sv, false, false},
        {"one-byte payloads", "AT+DAT0:1#U"sv, false, false},
        {"delimiters", "#"sv, false, false},
        {"zero bytes", "\0"sv, false, false},
        {"first letters of headers", "A"sv, false, false},
        {"payload of 55", "\x55"sv, true, false},
        {"payload of AA", "\xAA"sv, true, false},
        {"payload of response starts", "\xAA\xDD"sv, true, false},
        {"payload of bad channel bytes", "\x55\x55\xE2\0"sv, true, false},
    };
    return kFloods;
}

test::Bytes floodBlock(const Flood& flood, std::size_t size) {
    constexpr std::size_t kRoomForHeader = 16;
    test::Bytes bytes(flood.asPayload ? size - kRoomForHeader : size);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(flood.pattern[i % flood.pattern.size()]);
    }
    if (flood.farMark) {
        bytes.back() = '#';
    }
    return flood.asPayload ? test::envelope(0, bytes) : bytes;
}

}  // namespace bench
