#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "allocations.h"
#include "protocol/headset_frames.h"
#include "registration.h"
#include "session/stream_reader.h"
#include "session/time_line.h"
#include "streams.h"

// The library for new programs, from bytes to records. As with the receive path's benchmarks, bytes per second count
// the stream's bytes, and the bare loop is credited with those of the frames that carry its samples.

namespace bench {
namespace {

constexpr std::int64_t kNanosPerByte = 5000;  // of a full line

/// What a host gets for a packet.
struct Record {
    std::uint16_t kind, flags;
    std::int16_t headset, index;
    std::int64_t time, sample;
    std::uint32_t lost, dropped;
    std::uint16_t channel, channels, count;
    std::uint8_t counter, code;
    std::array<std::uint8_t, 16> bytes;
    std::array<std::uint32_t, 8> values;
    std::array<std::int16_t, protocol::kSamples> samples;
    std::array<std::uint32_t, 2> reserved;
};
static_assert(sizeof(Record) == 320);

constexpr std::size_t kQueue = 8192;  // ten seconds of a full line

/// Makes records of what a reader finds, in a ring that is never full.
class Receiver {
  public:
    void receive(std::span<const std::uint8_t> bytes) {
        std::copy(bytes.begin(), bytes.end(), reader_.room().begin());
        now_ += static_cast<std::int64_t>(bytes.size()) * kNanosPerByte;
        reader_.received(bytes.size(), now_, false, *this);
    }

    void frame(int index, protocol::FrameKind kind, const std::uint8_t* bytes, std::int64_t arrival) {
        if (kind != protocol::FrameKind::kRaw) {
            return;
        }
        const protocol::ChannelByte channel{bytes[3]};
        const int channels = channel.single() ? 1 : channel.number();
        const int slot = channel.single() ? channel.number() : velmora::TimeLine::kMulti;
        const std::uint8_t counter = bytes[protocol::kCounterOffset];
        const velmora::Placement placement = lines_[static_cast<std::size_t>(index)].place(
            slot, protocol::kSamples / channels, counter, velmora::contentOf(bytes), arrival, 0);
        if (placement.repeated) {
            return;
        }
        Record& record = records_[made_++ % kQueue];
        record.kind = 1;
        record.flags = static_cast<std::uint16_t>((channel.single() ? 0 : 1) | (placement.first ? 2 : 0) |
                                                  (placement.estimated ? 4 : 0) | (placement.damagedCounter ? 8 : 0));
        record.headset = record.index = static_cast<std::int16_t>(index);
        record.time = arrival;
        record.sample = placement.sample;
        record.lost = placement.lost;
        record.dropped = 0;
        record.channel = static_cast<std::uint16_t>(channel.single() ? channel.number() : 0);
        record.channels = static_cast<std::uint16_t>(channels);
        record.count = static_cast<std::uint16_t>(protocol::kSamples / channels);
        record.counter = counter;
        record.code = 0;
        record.bytes = {};
        record.values = {};
        record.reserved = {};
        protocol::convertSamples(bytes, record.samples.data());
    }
    void text(velmora::TextKind, std::string_view, std::int64_t) {}

    std::uint64_t made() const { return made_; }

  private:
    velmora::StreamReader reader_;
    std::array<velmora::TimeLine, protocol::kHeadsets> lines_;
    std::vector<Record> records_ = std::vector<Record>(kQueue);
    std::uint64_t made_ = 0;
    std::int64_t now_ = 0;
};

/// The same samples into the same records, all of whose bytes are written, and nothing else. Not inlined and without
/// overlap, because only then does g++ vectorise it at -O2.
[[gnu::noinline, gnu::aligned(64)]] void convertPacket(const std::uint8_t* __restrict from, Record* __restrict to) {
    std::memset(to, 0, offsetof(Record, samples));
    to->kind = 1;
    to->time = to->sample = from[0];
    to->count = protocol::kSamples;
    to->reserved = {};
    for (std::size_t i = 0; i < protocol::kSamples; ++i) {
        std::uint16_t word;
        std::memcpy(&word, from + 2 * i, sizeof word);
        to->samples[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(word << 8 | word >> 8));
    }
}

void countBytes(benchmark::State& state, std::size_t each) {
    state.SetBytesProcessed(static_cast<std::int64_t>(each) * static_cast<std::int64_t>(state.iterations()));
}

void bareRecords(benchmark::State& state) {
    constexpr std::size_t kSampleBytes = 2 * protocol::kSamples;
    const PacketStream stream(16, kReadSize);
    const test::Bytes from(stream.packets() * kSampleBytes, 0x5A);
    std::vector<Record> to(kQueue);
    std::size_t made = 0;
    for (auto _ : state) {
        for (std::size_t packet = 0; packet < stream.packets(); ++packet) {
            convertPacket(from.data() + packet * kSampleBytes, &to[made++ % kQueue]);
            benchmark::ClobberMemory();
        }
    }
    countBytes(state, stream.bytes());
}

void records(benchmark::State& state, PacketStream stream, std::size_t readSize, bool undamaged = true) {
    const auto receiver = std::make_unique<Receiver>();
    const auto play = [&] {
        stream.count();
        for (const test::Bytes& block : stream.blocks()) {
            for (auto bytes = std::span(block); !bytes.empty();) {
                const auto read = bytes.first(std::min(readSize, bytes.size()));
                receiver->receive(read);
                bytes = bytes.subspan(read.size());
            }
        }
    };
    play();
    play();
    const std::uint64_t madeBefore = receiver->made();
    const std::uint64_t allocationsBefore = allocations();
    for (auto _ : state) {
        play();
        benchmark::ClobberMemory();
    }
    state.counters["allocations_per_block"] =
        static_cast<double>(allocations() - allocationsBefore) / static_cast<double>(state.iterations());
    if (undamaged &&
        receiver->made() - madeBefore != stream.packets() * static_cast<std::uint64_t>(state.iterations())) {
        state.SkipWithError("not every packet became one record");
    }
    countBytes(state, stream.bytes());
}

void flood(benchmark::State& state, const test::Bytes& block) {
    const auto receiver = std::make_unique<Receiver>();
    const auto play = [&] {
        for (auto bytes = std::span(block); !bytes.empty();) {
            const auto read = bytes.first(std::min(kReadSize, bytes.size()));
            receiver->receive(read);
            bytes = bytes.subspan(read.size());
        }
    };
    play();
    const std::uint64_t allocationsBefore = allocations();
    for (auto _ : state) {
        play();
    }
    state.counters["allocations_per_block"] =
        static_cast<double>(allocations() - allocationsBefore) / static_cast<double>(state.iterations());
    countBytes(state, block.size());
}

}  // namespace

void registerSessionBenchmarks() {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("bare records", bareRecords);
    RegisterBenchmark("records/whole packets",
                      [](benchmark::State& state) { records(state, PacketStream(16, kReadSize), kReadSize); });
    RegisterBenchmark("records/packets cut by frames", [](benchmark::State& state) {
        records(state, PacketStream(16, kReadSize, PacketStream::Cut::kInsidePackets), kReadSize);
    });
    RegisterBenchmark("records/reads of 100 bytes",
                      [](benchmark::State& state) { records(state, PacketStream(16, kReadSize), 100); });
    RegisterBenchmark("records/1 per cent of bytes damaged", [](benchmark::State& state) {
        PacketStream stream(16, kReadSize);
        stream.damage(10);
        records(state, std::move(stream), kReadSize, false);
    });
    for (const Flood& kind : floods()) {
        for (const std::size_t size : {std::size_t{1024}, std::size_t{32 * 1024}, std::size_t{1024 * 1024}}) {
            // A payload of its own is as long as one may be.
            const std::size_t length = kind.asPayload ? std::min(size, velmora::StreamReader::kLongestPayload) : size;
            const std::string name = std::string("records flood/") + kind.name + "/" + std::to_string(size);
            RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { flood(state, floodBlock(kind, length)); });
        }
    }
}

}  // namespace bench
