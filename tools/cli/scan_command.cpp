#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/json.h"
#include "cli/text.h"

namespace velmora::cli {

void scanCommand(const ScanOptions& options, Reporter& reporter) {
    Connection connection(options.port, reporter);
    const Failure left(kNotDone,
                       "headsets of a run that did not end in order still send, and a scan does not find those; drop "
                       "them with: velmora reset --port " +
                           connection.port());
    std::vector<Found> found;
    try {
        found = connection.scan();
    } catch (const Error& error) {
        if (error.status() == VELMORA_BUSY) {
            throw left;
        }
        throw;
    }
    if (options.json) {
        Json json;
        json.beginObject().beginArray("headsets");
        for (const Found& headset : found) {
            json.beginObject()
                .field("address", headset.address)
                .field("name", printable(headset.name))
                .field("option", headset.option)
                .endObject();
        }
        std::cout << json.endArray().endObject().text() << "\n";
    } else if (!found.empty()) {
        std::cout << headsetTable(found);
    }
    if (found.empty()) {
        if (connection.headsetsLeft()) {
            throw left;
        }
        choose(found, {});  // says what to do
    }
}

}  // namespace velmora::cli
