#include <algorithm>
#include <iostream>
#include <memory>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/progress.h"
#include "cli/terminal.h"
#include "cli/text.h"
#include "record/local_time.h"

namespace velmora::cli {
namespace {

constexpr double kProgressSeconds = 10;

using record::Recording;

std::vector<record::Headset> headsetsOf(const Reception& reception) {
    std::vector<record::Headset> headsets;
    for (const Headset& headset : reception.headsets()) {
        headsets.push_back({headset.number, headset.address, printable(headset.name)});
    }
    return headsets;
}

record::Start startOf(const Reception& reception) {
    const Dongle::Moment& moment = reception.started();
    return {moment.time, moment.utc, record::localOffset(moment.utc)};
}

std::string marksText(const std::vector<Mark>& marks) {
    std::string text;
    for (const Mark& mark : marks) {
        text += std::string(1, mark.key) + " " + mark.text + "   ";
    }
    return text + "Ctrl-C ends";
}

/// A recording with what is told of it on the way.
class Recorder {
  public:
    /// `view`: null when nobody looks on.
    Recorder(const RecordOptions& options, Reception& reception, Reporter& reporter, LiveView* view)
        : options_(options),
          reception_(reception),
          reporter_(reporter),
          view_(view),
          recording_(options.recording, headsetsOf(reception), startOf(reception), record::systemFiles(),
                     velmora_version(), velmora_version(),
                     [&reporter](const std::string& text) { reporter.warn(text); }),
          keyboard_(options.marks.empty() ? nullptr : std::make_unique<Keyboard>()) {}

    void take(std::span<const Record> records) {
        recording_.take(records);
        if (view_ != nullptr) {
            view_->take(records);
        }
    }

    void tick() {
        while (const auto key = keyboard_ ? keyboard_->poll() : std::nullopt) {
            for (const Mark& mark : options_.marks) {
                if (mark.key == *key) {
                    write(mark);
                }
            }
        }
        if (view_ != nullptr) {
            while (const auto number = view_->nextMark()) {
                if (*number < options_.marks.size()) {
                    write(options_.marks[*number]);
                }
            }
            view_->tick(reception_);
        }
        recording_.tick(velmora_now());
        if (const auto unusual = recording_.unusualRates(); !unusual.empty()) {
            std::string text;
            for (const std::string& headset : unusual) {
                text += (text.empty() ? "" : "; ") + headset;
            }
            throw Failure(kUsage,
                          "the sample rate that was measured is none of the usual ones, so it has to be given "
                          "with --rate: " +
                              text);
        }
        showProgress();
    }

    /// Closes the files and says what is in them.
    void finish() {
        recording_.finish();
        reporter_.endTable();
        for (const record::HeadsetProgress& headset : recording_.progress().headsets) {
            std::cout << (headset.file.empty() ? "no data" : headset.file) << ": "
                      << headsetText(headset.headset.address, headset.headset.name) << ", " << fixed(headset.seconds, 1)
                      << " s, " << headset.packets << " packets, lost " << lossText(headset.packets, headset.lost)
                      << "\n";
        }
    }

  private:
    void write(const Mark& mark) {
        const std::int64_t time = velmora_now();
        recording_.mark(time, mark.text);
        reporter_.say("marked at " + timeText(reception_.seconds()) + ": " + mark.text);
        if (view_ != nullptr) {
            view_->marked(time, mark.text);
        }
    }

    void showProgress() {
        const double seconds = reception_.seconds();
        if (seconds < due_) {
            return;
        }
        due_ = seconds + (reporter_.showsTable() ? kRedrawSeconds : kProgressSeconds);
        const record::Progress progress = recording_.progress();
        const std::string line =
            progressLine(progress, seconds, record::freeBytes(options_.recording.target.base + ".json"),
                         static_cast<std::size_t>(consoleOfOutput().width));
        if (reporter_.showsTable()) {
            reporter_.show({line, marksText(options_.marks)});
        } else {
            reporter_.say(line);
        }
    }

    const RecordOptions& options_;
    Reception& reception_;
    Reporter& reporter_;
    LiveView* const view_;
    Recording recording_;
    const std::unique_ptr<Keyboard> keyboard_;
    double due_ = 0.5;
};

/// From connecting to the closed files.
void recordData(const RecordOptions& options, Connection& connection, Reporter& reporter, LiveView* view) {
    connection.connect(options.choice);
    Reception reception(connection, reporter, options.reception);
    if (view != nullptr) {
        view->begin(reception, options.reception.keepGoing, true, options.marks);
    }
    Recorder recorder(options, reception, reporter, view);
    std::optional<Failure> failure;
    try {
        reception.run({[&](std::span<const Record> records) { recorder.take(records); }, [&] { recorder.tick(); }});
    } catch (const Failure& problem) {
        failure = problem;
    } catch (const record::FileError& problem) {
        failure = Failure(kNoOutput, problem.what());
    }
    try {
        recorder.finish();
    } catch (const record::FileError&) {
        if (!failure) {
            throw;
        }
    }
    if (failure) {
        throw *failure;
    }
    if (view != nullptr) {
        view->end("the recording has ended");
    }
    checkLosses(reception.views(), options.maxLoss);
}

}  // namespace

void recordCommand(const RecordOptions& given, Reporter& reporter) {
    RecordOptions options = given;
    if (options.view) {
        options.reception.pause = kViewPause;
        if (options.marks.empty()) {
            options.marks.push_back({'m', "mark"});
        }
    }
    try {
        // Before anything is connected: a name that cannot be used shall cost nothing.
        record::systemFiles().check(options.recording.target.base + ".json",
                                    options.recording.force ? record::IfExists::Overwrite : record::IfExists::Refuse);
        Connection connection(options.choice.port, reporter);
        std::optional<LiveView> view;
        if (options.view) {
            view.emplace(options.viewSettings, reporter);
        }
        try {
            recordData(options, connection, reporter, view ? &*view : nullptr);
        } catch (const std::exception& problem) {
            if (view) {
                view->end(problem.what());
            }
            throw;
        }
    } catch (const record::FileError& problem) {
        throw Failure(kNoOutput, problem.what());
    }
}

}  // namespace velmora::cli
