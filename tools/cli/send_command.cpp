#include <chrono>
#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

void show(const Record& response) {
    constexpr const char* kDigits = "0123456789ABCDEF";
    std::string bytes;
    for (std::size_t i = 0; i < response.count && i < sizeof response.bytes; ++i) {
        bytes += {' ', kDigits[response.bytes[i] >> 4U], kDigits[response.bytes[i] & 15U]};
    }
    std::cout << "response of device " << response.index << ":" << bytes << "\n";
}

/// Tells all that are connected, and shows what they answer in that time.
void sendToAll(Dongle& dongle, const SendOptions& options) {
    dongle.send(VELMORA_ALL, options.command, options.payload);
    const std::int64_t end = velmora_now() + static_cast<std::int64_t>(options.seconds * 1e9);
    std::vector<Record> records(16);
    int responses = 0;
    for (std::int64_t now = velmora_now(); now < end; now = velmora_now()) {
        const Batch batch =
            dongle.read(records, 1, std::chrono::milliseconds((end - now) / 1'000'000 + 1), &userStop());
        for (const Record& record : batch.records) {
            if (record.kind == VELMORA_RESPONSE) {
                show(record);
                ++responses;
            }
        }
        if (batch.status != VELMORA_OK && batch.status != VELMORA_TIMEOUT) {
            throw asFailure(Error(batch.status, 0, ""));
        }
    }
    if (responses == 0) {
        throw Failure(kNotDone, "no headset responded; those that are not connected do not hear a command");
    }
}

}  // namespace

void sendCommand(const SendOptions& options, Reporter& reporter) {
    if (options.payload.size() == 4 || options.payload.size() == 12) {
        reporter.warn("with " + std::to_string(options.payload.size()) +
                      " bytes of payload the command code is not sent; the last byte takes its place");
    }
    Connection connection(options.choice.port, reporter);
    if (options.index == VELMORA_ALL) {
        sendToAll(connection.dongle(), options);
        return;
    }
    if (!options.index) {
        connection.connect(options.choice);
    }
    const int index = options.index.value_or(connection.headsets().empty() ? 0 : connection.headsets().front().index);
    const auto timeout = std::chrono::milliseconds(static_cast<std::int64_t>(options.seconds * 1e3));
    show(connection.dongle().request(index, options.command, options.payload, timeout, &userStop(),
                                     options.shared ? std::uint32_t{VELMORA_KNOWN_TEXTS} : 0));
    if (options.keep) {
        connection.keep();
    }
}

}  // namespace velmora::cli
