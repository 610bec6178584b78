#include <benchmark/benchmark.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <string>

#include "allocations.h"
#include "core/receive_buffer.h"
#include "core/stream_framer.h"
#include "protocol/headset_frames.h"
#include "registration.h"
#include "streams.h"

// Bytes per second count the stream's bytes, dongle headers included, in every benchmark. The bare loop is credited
// with the bytes of the frames that carry its samples, so a ratio to it compares the time for the same samples.

namespace bench {
namespace {

using namespace kxorbeta_if;

/// A receive path of its own, with a host that only counts.
class Receiver {
  public:
    Receiver() {
        callbacks_.rawData = [](void* context, int, int, int*, int) { ++*static_cast<std::uint64_t*>(context); };
        callbacks_.context = &rawCalls_;
        flags_.recording = true;
        flags_.ctlFraming = true;
    }

    /// Puts a block where the link thread has its reads put. That is the kernel's work, not the library's.
    void fill(std::span<const std::uint8_t> block) {
        // In pieces of a size that compilers copy in vectors: a call that copies kilobytes costs several times as much
        // where the processor does it as one slow string instruction.
        constexpr std::size_t kPiece = 64;
        std::uint8_t* to = buffer_.room().data();
        for (; block.size() >= kPiece; block = block.subspan(kPiece), to += kPiece) {
            std::memcpy(to, block.data(), kPiece);
        }
        std::ranges::copy(block, to);
    }

    /// What the link thread does with the bytes that it has read.
    void parse(std::size_t count) { buffer_.parse(count, framer_); }

    /// A block of any length, by itself.
    void parseAlone(std::span<std::uint8_t> block) {
        framer_.parse(block, history_);
        history_.clear();
    }

    std::uint64_t rawCalls() const { return rawCalls_; }

  private:
    std::uint64_t rawCalls_ = 0;
    Flags flags_;
    CallbackTable callbacks_;
    ReceiveTables tables_;
    StreamFramer framer_{tables_, callbacks_, flags_};
    ReceiveBuffer buffer_{flags_};
    History history_;
};

void countBytes(benchmark::State& state, std::size_t each) {
    state.SetBytesProcessed(static_cast<std::int64_t>(each) * static_cast<std::int64_t>(state.iterations()));
}

void countAllocations(benchmark::State& state, std::uint64_t before, std::size_t blocksEach) {
    state.counters["allocations_per_block"] = static_cast<double>(allocations() - before) /
                                              static_cast<double>(state.iterations()) / static_cast<double>(blocksEach);
}

/// Not inlined and without overlap, because only then does g++ vectorise it at -O2, as it does the decoder's own
/// conversion. Left scalar this loop takes five times as long, and a decoder would seem faster than a part of its work.
[[gnu::noinline, gnu::aligned(64)]] void convertPacket(const std::uint8_t* __restrict from,
                                                       std::int32_t* __restrict to) {
    for (std::size_t i = 0; i < protocol::kSamples; ++i) {
        std::uint16_t word;
        std::memcpy(&word, from + 2 * i, sizeof word);
        if constexpr (std::endian::native == std::endian::little) {
            word = static_cast<std::uint16_t>(word << 8 | word >> 8);
        }
        to[i] = static_cast<std::int16_t>(word);
    }
}

void bare(benchmark::State& state) {
    constexpr std::size_t kSampleBytes = 2 * protocol::kSamples;
    const PacketStream stream(16, kReadSize);
    const test::Bytes from(stream.packets() * kSampleBytes, 0x5A);
    alignas(64) std::array<std::int32_t, protocol::kSamples> to;
    for (auto _ : state) {
        for (std::size_t packet = 0; packet < stream.packets(); ++packet) {
            convertPacket(from.data() + packet * kSampleBytes, to.data());
            benchmark::DoNotOptimize(to.data());
            benchmark::ClobberMemory();
        }
    }
    countBytes(state, stream.bytes());
}

/// What decode() spends, beside the receive path's own work, on numbering the packets anew for every iteration and on
/// putting the blocks in place.
void numbering(benchmark::State& state, PacketStream stream) {
    const auto receiver = std::make_unique<Receiver>();
    for (auto _ : state) {
        stream.count();
        for (const test::Bytes& block : stream.blocks()) {
            receiver->fill(block);
            benchmark::ClobberMemory();
        }
    }
    countBytes(state, stream.bytes());
}

void decode(benchmark::State& state, PacketStream stream, bool undamaged = true) {
    const auto receiver = std::make_unique<Receiver>();
    const auto play = [&] {
        stream.count();
        for (const test::Bytes& block : stream.blocks()) {
            receiver->fill(block);
            receiver->parse(block.size());
        }
    };
    play();
    play();
    const std::uint64_t callsBefore = receiver->rawCalls();
    const std::uint64_t allocationsBefore = allocations();
    for (auto _ : state) {
        play();
    }
    countAllocations(state, allocationsBefore, stream.blocks().size());
    const std::uint64_t sent = stream.packets() * static_cast<std::uint64_t>(state.iterations());
    if (undamaged && receiver->rawCalls() - callsBefore != sent) {
        state.SkipWithError("not every packet reached the host exactly once");
    }
    countBytes(state, stream.bytes());
}

void flood(benchmark::State& state, test::Bytes block) {
    const auto receiver = std::make_unique<Receiver>();
    receiver->parseAlone(block);
    receiver->parseAlone(block);
    const std::uint64_t allocationsBefore = allocations();
    for (auto _ : state) {
        receiver->parseAlone(block);
    }
    countAllocations(state, allocationsBefore, 1);
    countBytes(state, block.size());
}

}  // namespace

void registerReceiveBenchmarks() {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("bare", bare);
    RegisterBenchmark("numbering", [](benchmark::State& state) { numbering(state, PacketStream(16, kReadSize)); });
    RegisterBenchmark("decoding/whole packets",
                      [](benchmark::State& state) { decode(state, PacketStream(16, kReadSize)); });
    RegisterBenchmark("decoding/packets cut by frames", [](benchmark::State& state) {
        decode(state, PacketStream(16, kReadSize, PacketStream::Cut::kInsidePackets));
    });
    for (const int devices : {1, 4, 16}) {
        for (const std::size_t blockSize : {std::size_t{256}, std::size_t{1024}, kReadSize}) {
            const std::string shape = std::to_string(devices) + " headsets, blocks of " + std::to_string(blockSize);
            RegisterBenchmark(("shape/" + shape).c_str(),
                              [=](benchmark::State& state) { decode(state, PacketStream(devices, blockSize)); });
            RegisterBenchmark(("numbering/" + shape).c_str(),
                              [=](benchmark::State& state) { numbering(state, PacketStream(devices, blockSize)); });
        }
    }
    for (const unsigned perMille : {1u, 3u, 10u}) {
        const std::string name = "damage/" + std::to_string(perMille) + " per mille of bytes";
        RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
            PacketStream stream(16, kReadSize);
            stream.damage(perMille);
            decode(state, std::move(stream), false);
        });
    }
    for (const Flood& kind : floods()) {
        for (const std::size_t size : {std::size_t{1024}, std::size_t{32 * 1024}, std::size_t{1024 * 1024}}) {
            const std::string name = std::string("flood/") + kind.name + "/" + std::to_string(size);
            RegisterBenchmark(name.c_str(), [=](benchmark::State& state) { flood(state, floodBlock(kind, size)); });
        }
    }
}

}  // namespace bench
