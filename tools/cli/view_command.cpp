#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"

namespace velmora::cli {

void viewCommand(const ViewOptions& options, Reporter& reporter) {
    Connection connection(options.choice.port, reporter);  // first: without a dongle no browser is opened
    LiveView view(options.view, reporter);
    try {
        connection.connect(options.choice);
        Reception reception(connection, reporter, options.reception);
        view.begin(reception, true, false, {});
        reception.run({[&](std::span<const Record> records) { view.take(records); }, [&] { view.tick(reception); }});
        view.end("it was told to");
        const double seconds = reception.seconds();
        for (const HeadsetView& headset : reception.views()) {
            std::cout << summaryLine(headset, seconds) << "\n";
        }
    } catch (const std::exception& problem) {
        view.end(problem.what());
        throw;
    }
}

}  // namespace velmora::cli
