#include <chrono>
#include <iostream>
#include <thread>

#include "cli/commands.h"
#include "cli/failure.h"

namespace velmora::cli {
namespace {

using namespace std::chrono_literals;

constexpr auto kOnTheWay = 300ms;  // what the dongle had read from the air before it was told
constexpr auto kLook = 700ms;

}  // namespace

void resetCommand(const ResetOptions& options, Reporter& reporter) {
    Connection connection(options.port, reporter);
    connection.dropAll();
    std::this_thread::sleep_for(kOnTheWay);
    connection.dongle().start();
    std::vector<Record> records(1);
    while (true) {
        const Batch batch = connection.dongle().read(records, 1, kLook, &userStop());
        if (batch.status == VELMORA_TIMEOUT) {
            break;
        }
        if (batch.status == VELMORA_CANCELLED) {
            throw Failure(kInterrupted, "interrupted");
        }
        if (batch.status != VELMORA_OK) {
            throw asFailure(Error(batch.status, 0, ""));
        }
        if (records[0].kind != VELMORA_EVENT && records[0].kind != VELMORA_RESPONSE) {
            throw Failure(kNotDone, "headsets still send; unplug the dongle and plug it in again");
        }
    }
    std::cout << "the dongle on " << connection.port() << " has no headsets now\n";
}

}  // namespace velmora::cli
