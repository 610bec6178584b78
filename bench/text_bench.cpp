#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <utility>

#include "core/command_queue.h"
#include "core/device_command.h"
#include "core/device_registry.h"
#include "core/reply_handlers.h"
#include "core/scan.h"
#include "protocol/commands.h"
#include "registration.h"

// Commands and text replies: a few a second at most, so they are only watched, as nanoseconds a call.

namespace bench {
namespace {

using namespace kxorbeta_if;

std::string address(int number) {
    std::string text = "A1B2C3D4E500";
    text[10] = static_cast<char>('0' + number / 10);
    text[11] = static_cast<char>('0' + number % 10);
    return text;
}

/// One piece of text for each of `count` headsets.
template <typename Piece>
std::string forHeadsets(int count, Piece&& piece) {
    std::string text;
    for (int number = 0; number < count; ++number) {
        text += piece(number);
    }
    return text;
}

/// Builds a command as the host's call does, queues it, and takes it out as the link thread does.
void commandThroughQueue(benchmark::State& state, std::size_t payloadLength) {
    Flags flags;
    flags.linkActive = true;
    flags.ctlFraming = true;
    CommandQueue queue;
    const Bytes payload(payloadLength, 0x5A);
    for (auto _ : state) {
        if (payload.empty()) {
            sendCommand(flags, queue, 3, 0x21);
        } else {
            sendCommandWithPayload(flags, queue, 3, 0x21, payload);
        }
        auto command = queue.pop();
        if (!command) {
            state.SkipWithError("the command was not queued");
            break;
        }
        benchmark::DoNotOptimize(command->data());
    }
}

void buildCommand(benchmark::State& state) {
    const Bytes payload(8, 0x5A);
    for (auto _ : state) {
        benchmark::DoNotOptimize(protocol::commandFrame(0x21, payload));
    }
}

void queueOnly(benchmark::State& state) {
    CommandQueue queue;
    const Bytes command(24, 0x5A);
    for (auto _ : state) {
        queue.push(command);
        benchmark::DoNotOptimize(queue.pop());
    }
}

struct Reports {
    Reports() {
        for (int number = 0; number < 16; ++number) {
            registry.append(ble_device(address(number), 0, number));
        }
        callbacks.event = [](void*, unsigned, unsigned, void* detail) { benchmark::DoNotOptimize(detail); };
    }
    DeviceRegistry registry;
    CallbackTable callbacks;
    ReportTargets targets{registry, callbacks};
};

void serviceConnected(benchmark::State& state) {
    const std::string text =
        forHeadsets(1, [](int number) { return "Service connected. " + address(number) + ",0\r\n"; });
    Reports reports;
    for (auto _ : state) {
        handleServiceConnected(reports.targets, text.c_str());
    }
}

void list(benchmark::State& state) {
    const std::string text =
        "AT+LIST=" + forHeadsets(16, [](int number) { return std::to_string(number) + "," + address(number) + ";"; }) +
        "\r\n";
    Reports reports;
    for (auto _ : state) {
        reports.registry.handleDeviceList(text.c_str());
    }
}

void disconnected(benchmark::State& state) {
    const std::string text = "Client disconnected," + address(15) + ",8\r\n";
    Reports reports;
    for (auto _ : state) {
        handleClientDisconnected(reports.targets, text.c_str());
    }
}

void scanLines(benchmark::State& state) {
    const std::string text =
        forHeadsets(16, [](int number) { return address(number) + ",1 XAI-" + std::to_string(number) + "\n"; });
    ScanWorkingList list;
    for (auto _ : state) {
        parseScanLines(text, list);
    }
    if (list.snapshot().size() != 16) {
        state.SkipWithError("not every headset was found");
    }
}

}  // namespace

void registerTextBenchmarks() {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("call/command frame, 8 bytes of payload", buildCommand);
    RegisterBenchmark("call/enqueue and dequeue", queueOnly);
    RegisterBenchmark("call/command without payload, built, queued, taken", commandThroughQueue, std::size_t{0});
    RegisterBenchmark("call/command with 8 bytes, built, queued, taken", commandThroughQueue, std::size_t{8});
    RegisterBenchmark("call/reply: service connected", serviceConnected);
    RegisterBenchmark("call/reply: list of 16", list);
    RegisterBenchmark("call/reply: disconnected, last of 16", disconnected);
    RegisterBenchmark("call/scan lines, 16 known headsets", scanLines);
}

}  // namespace bench
