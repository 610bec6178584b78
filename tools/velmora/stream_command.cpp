#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>

#include "velmora/commands.h"
#include "velmora/csv_writer.h"
#include "velmora/failure.h"
#include "velmora/live_display.h"
#include "velmora/stream_tap.h"
#include "velmora/terminal.h"

namespace velmora {

namespace {

using namespace std::chrono_literals;

constexpr auto kLookEvery = 50ms;
constexpr double kRedrawSeconds = 0.25;
constexpr double kPrintSeconds = 1;

std::unique_ptr<CsvWriter> openCsv(const std::string& path) {
    if (path.empty())
        return nullptr;
    auto file = std::make_unique<std::ofstream>(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
    if (!*file)
        throw Failure(kExitOutput, "file " + path + " cannot be written");
    return std::make_unique<CsvWriter>(std::move(file));
}

/// Keeps the callbacks at work, and off the writer when the command ends, however it ends.
class Tapping {
  public:
    explicit Tapping(CsvWriter* csv) { StreamTap::instance().begin(csv); }
    ~Tapping() { StreamTap::instance().end(); }
    Tapping(const Tapping&) = delete;
    Tapping& operator=(const Tapping&) = delete;
};

/// The state of the stream: redrawn on a terminal, printed once a second elsewhere.
class Progress {
  public:
    explicit Progress(bool quiet) : quiet_(quiet), interactive_(consoleOfOutput().interactive) { window_.add(0, {}); }

    void update(const StreamTap::Look& look) {
        if (quiet_ || look.seconds < due_)
            return;
        due_ = look.seconds + (interactive_ ? kRedrawSeconds : kPrintSeconds);
        window_.add(look.seconds, look.counters);
        const auto lines = describe(look);
        if (interactive_) {
            display_.show(lines, consoleOfOutput().width);
            return;
        }
        for (const std::string& line : lines)
            std::cout << line << "\n";
        std::cout.flush();
    }

    void tell(const StreamTap::Event& event) {
        if (event.code == 1)
            note("a headset has disconnected");
        else if (event.code == 2)
            note("a headset has connected as device " + std::to_string(event.value));
    }

  private:
    std::vector<std::string> describe(const StreamTap::Look& look) const {
        std::ostringstream time;
        if (!interactive_)
            time << std::fixed << std::setprecision(1) << std::setw(6) << look.seconds << " s  ";
        std::vector<std::string> lines;
        for (int device = 0; device < kDevices; ++device) {
            const DeviceCounters& counters = look.counters.devices[static_cast<std::size_t>(device)];
            if (counters.seen())
                lines.push_back(time.str() + liveLine(device, counters, window_.rates(device)));
        }
        if (lines.empty())
            lines.push_back(time.str() + "no raw data yet");
        return lines;
    }

    void note(const std::string& text) {
        if (quiet_)
            return;
        if (interactive_)
            display_.note(text);
        else
            std::cerr << text << std::endl;
    }

    bool quiet_;
    bool interactive_;
    double due_ = kPrintSeconds;
    RateWindow window_;
    LiveDisplay display_{std::cout};
};

/// Returns when the user or the time asks for the end. Throws when the stream or the file ends it.
void watch(const StreamOptions& options, const CsvWriter* csv) {
    StreamTap& tap = StreamTap::instance();
    Progress progress(options.quiet);
    bool disconnected = false;
    while (stopRequests() == 0) {
        const auto look = tap.look();
        for (const StreamTap::Event& event : tap.takeEvents()) {
            progress.tell(event);
            disconnected = disconnected || event.code == 1;
            if (event.code == 3)
                throw Failure(kExitNoData, "the dongle has restarted. " + silenceText());
        }
        progress.update(look);
        if (csv != nullptr && csv->failed())
            throw Failure(kExitOutput, "file " + options.csvFile + " cannot be written any more; is the disk full?");
        if (options.seconds && look.seconds >= *options.seconds)
            return;
        if (look.silentSeconds >= kSilenceSeconds) {
            const std::string begin = disconnected ? "The dongle reported that a headset disconnected. " : "";
            throw Failure(kExitNoData,
                          (look.anyData ? "no data any more. " : "no data has come. ") + begin + silenceText());
        }
        std::this_thread::sleep_for(kLookEvery);
    }
}

void finishCsv(const StreamOptions& options, CsvWriter& csv) {
    const bool whole = csv.close();
    std::cout << options.csvFile << ": " << csv.writtenSamples() << " samples written, " << csv.droppedSamples()
              << " dropped because the file could not keep up\n";
    if (!whole)
        throw Failure(kExitOutput, "file " + options.csvFile + " is not complete; is the disk full?");
}

}  // namespace

std::string silenceText() {
    return "The dongle may have restarted or been unplugged, or the headset been switched off or out of range. Unplug "
           "the dongle and plug it in again, bring the headset near, and start this command anew: after a restart of "
           "the "
           "dongle nothing more reaches the program that was connected. What the library noticed stands in kxsdk.log.";
}

void streamCommand(Session& session, const StreamOptions& options) {
    // Before anything is connected: a path that cannot be written shall cost nothing.
    const auto csv = openCsv(options.csvFile);
    session.connect(options.choice);
    std::optional<Failure> failure;
    StreamTap::Look last;
    {
        const Tapping tapping(csv.get());
        try {
            watch(options, csv.get());
        } catch (const Failure& problem) {
            failure = problem;
        }
        last = StreamTap::instance().look();
    }
    std::cout << summaryText(last.seconds, last.counters);
    try {
        if (csv)
            finishCsv(options, *csv);
    } catch (const Failure& problem) {
        if (!failure)
            failure = problem;
    }
    if (failure)
        throw *failure;
}

}  // namespace velmora
