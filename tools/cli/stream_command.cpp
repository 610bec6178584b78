#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/json.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

constexpr double kPrintSeconds = 1;

/// The state of the headsets: redrawn on a terminal, printed once a second elsewhere.
class Display {
  public:
    Display(Reception& reception, Reporter& reporter, const std::string& port, bool json)
        : reception_(reception), reporter_(reporter), port_(port), lines_(!json) {}

    void tick() {
        const double seconds = reception_.seconds();
        if (seconds < due_) {
            return;
        }
        if (reporter_.showsTable() && lines_) {
            due_ = seconds + kRedrawSeconds;
            reporter_.show(tableLines(reception_.views(), seconds, port_));
            return;
        }
        due_ = seconds + kPrintSeconds;
        for (const HeadsetView& view : reception_.views()) {
            reporter_.say(logLine(view, seconds));
        }
    }

  private:
    Reception& reception_;
    Reporter& reporter_;
    const std::string port_;
    const bool lines_;
    double due_ = kPrintSeconds;
};

}  // namespace

void streamCommand(const StreamOptions& options, Reporter& reporter) {
    Connection connection(options.choice.port, reporter);
    connection.connect(options.choice);
    Reception reception(connection, reporter, options.reception);
    Display display(reception, reporter, connection.port(), options.json);
    std::optional<Failure> failure;
    try {
        reception.run({[](std::span<const Record>) {}, [&] { display.tick(); }});
    } catch (const Failure& problem) {
        failure = problem;
    }
    reporter.endTable();
    const double seconds = reception.seconds();
    const auto views = reception.views();
    if (options.json) {
        std::cout << summaryJson(views, seconds, connection.dongle().statistics()) << "\n";
    } else {
        for (const HeadsetView& view : views) {
            std::cout << summaryLine(view, seconds) << "\n";
        }
    }
    if (failure) {
        throw *failure;
    }
    if (options.maxLoss) {
        checkLosses(views, *options.maxLoss);
    }
}

}  // namespace velmora::cli
