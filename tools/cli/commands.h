// What the program can do. Each throws Failure, or Error of the library, when it did not succeed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/connection.h"
#include "cli/live_view.h"
#include "cli/reception.h"
#include "record/recording.h"
#include "record/svg_plot.h"

namespace velmora::cli {

struct FindOptions {
    bool allPorts = false;
    bool json = false;
};

struct ScanOptions {
    std::string port;
    bool json = false;
};

struct StreamOptions {
    Choice choice;
    ReceptionOptions reception;
    std::optional<double> maxLoss;  ///< per cent
    bool json = false;
};

struct ViewOptions {
    ViewOptions() {
        reception.keepGoing = true;  // who watches wants to see them come back
        reception.pause = kViewPause;
    }
    Choice choice;
    ReceptionOptions reception;
    ViewSettings view;
};

struct RecordOptions {
    Choice choice;
    ReceptionOptions reception;
    record::Options recording;
    double maxLoss = 5;  ///< per cent
    std::vector<Mark> marks;
    bool view = false;  ///< show it meanwhile
    ViewSettings viewSettings;
};

struct PlotOptions {
    std::string file;
    std::string output;  ///< "-": standard output
    bool force = false;
    record::PlotOptions picture;
};

struct SendOptions {
    Choice choice;
    std::optional<int> index;  ///< a headset that is connected already; VELMORA_ALL: all that are
    std::uint8_t command = 0;
    std::vector<std::uint8_t> payload;
    double seconds = 1;   ///< for the answer
    bool keep = false;    ///< leave the headset connected
    bool shared = false;  ///< send it also where other headsets get it too
};

struct ResetOptions {
    std::string port;
};

struct DoctorOptions {
    std::string port;
    bool json = false;
};

void findCommand(const FindOptions& options, Reporter& reporter);
void scanCommand(const ScanOptions& options, Reporter& reporter);
void streamCommand(const StreamOptions& options, Reporter& reporter);
void recordCommand(const RecordOptions& options, Reporter& reporter);
void viewCommand(const ViewOptions& options, Reporter& reporter);
void plotCommand(const PlotOptions& options, Reporter& reporter);
void sendCommand(const SendOptions& options, Reporter& reporter);
void resetCommand(const ResetOptions& options, Reporter& reporter);
void doctorCommand(const DoctorOptions& options, Reporter& reporter);

}  // namespace velmora::cli
