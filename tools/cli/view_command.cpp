#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"

namespace velmora::cli {

void viewCommand(const ViewOptions& options, Reporter& reporter) {
    LiveView view(options.view, reporter);
    Connection connection(options.choice.port, reporter);
    connection.connect(options.choice);
    Reception reception(connection, reporter, options.reception);
    view.begin(reception, true, false, {});
    try {
        reception.run({[&](std::span<const Record> records) { view.take(records); }, [&] { view.tick(reception); }});
        view.end("velmora has ended");
    } catch (const std::exception& problem) {
        view.end(problem.what());
        throw;
    }
    const double seconds = reception.seconds();
    for (const HeadsetView& headset : reception.views()) {
        std::cout << summaryLine(headset, seconds) << "\n";
    }
}

}  // namespace velmora::cli
