#include "dongle/program_options.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <map>
#include <vector>

namespace dongle {

namespace {

constexpr const char* kHelp =
    "Examples:\n"
    "  velmora-dongle --headsets 16 --fill 200000 --no-gaps\n"
    "      sixteen headsets on a full line\n"
    "  velmora-dongle --link /dev/ttyUSB7 --link /dev/ttyUSB9 --replug-every 60000 --replug-away 3000\n"
    "      unplugged every minute for three seconds, and back under the other name\n"
    "  velmora-dongle --restart-every 30000 --timers-from start\n"
    "      restarts twice a minute, whether a host is there or not\n"
    "  velmora-dongle --headset 1:disconnect-after=20000,rejoin-after=5000,rejoin-index=9\n"
    "      the first headset drops out after 20 seconds, and comes back by itself as device 9, then 1, then 9\n"
    "  velmora-dongle --second-group drop\n"
    "      a second group takes the place of the first\n"
    "  velmora-dongle --corrupt 0.001 --lose 0.01 --account packets.csv\n"
    "      damages and loses packets, and says which\n"
    "\n"
    "The host's end: what is unread when a host closes the terminal is gone for the next host, headsets stay "
    "connected,\n"
    "and their data runs on, dropped, until a host opens again.\n"
    "\n"
    "The account has a line for each copy of each raw packet, in the order in which they were made:\n"
    "  headset,index            address, and device number at that time\n"
    "  kind                     raw; another kind only for damaged frames, which may cost a host their neighbours\n"
    "  number,channel,counter   the headset's packets from 0; channel, or all; packet counter as sent\n"
    "  produced_ns,sent_ns      when it was made and when the line took its last byte, since the dongle's start\n"
    "  copy                     0 lost, 1, 2 repeated\n"
    "  outcome                  whole, damaged, unread (the port went before the host had read all of it), dropped,\n"
    "                           lost (on purpose)\n"
    "  cause                    of a dropped one: queue full, line full, no host, silent, gone\n"
    "  damaged_byte,_part       place of the wrong byte from the 'A' of AT+DAT: marker, index, separator, length, "
    "sync,\n"
    "                           kind, channel, sample, counter, unused, content\n"
    "  bytes,taken,unread       its size, what the line took of it, what of that no host read\n"
    "What a host throws away itself (tcflush) counts as read. A serial port (--port) cannot tell what was unread.\n";

CLI::Option* addTime(CLI::App& app, const std::string& name, Time& time, const std::string& help) {
    const auto set = [&time](const std::uint32_t& value) { time = std::chrono::milliseconds(value); };
    return app.add_option_function<std::uint32_t>(name, set, help)->type_name("MS");
}

CLI::Option* addProbability(CLI::App& app, const std::string& name, double& value, const std::string& help) {
    return app.add_option(name, value, help)->check(CLI::Range(0.0, 1.0))->type_name("P");
}

/// One of some words, each with the value that it stands for.
template <typename Value>
void addChoice(CLI::App& app, const std::string& name, Value& value, const std::map<std::string, Value>& choices,
               const std::string& help) {
    std::vector<std::string> words;
    words.reserve(choices.size());
    for (const auto& [word, unused] : choices) {
        words.push_back(word);
    }
    const auto set = [&value, choices](const std::string& word) { value = choices.at(word); };
    app.add_option_function<std::string>(name, set, help)->check(CLI::IsMember(words))->type_name("");
}

void addNo(CLI::App& app, const std::string& name, bool& value, const std::string& help) {
    app.add_flag_callback(
        name, [&value] { value = false; }, help);
}

/// What holds for every headset; kept apart until the number of headsets is known.
struct Everywhere {
    int count = 2;
    HeadsetSettings headset = defaultHeadset(1);
    std::vector<std::string> changes;
};

void addPortOptions(CLI::App& app, ProgramOptions& options) {
    app.option_defaults()->group("Port");
    auto* port = app.add_option("--port", options.port, "Speak on this serial port instead of a new pseudo-terminal");
    app.add_option("--link", options.links,
                   "Put a link to the pseudo-terminal here, for example /dev/ttyUSB7; given more than once, each "
                   "plugging in takes the next one")
        ->type_name("PATH")
        ->expected(1)
        ->take_all()
        ->excludes(port);
    app.add_option("--account", options.accountFile,
                   "Write what became of every raw packet to this file, replacing it: a line for each copy of it, with "
                   "titles (see below)");
    addTime(app, "--duration", options.duration, "End after that time");
    app.add_flag("--quiet", options.quiet, "Do not print what the host sends");
}

void addHeadsetOptions(CLI::App& app, Everywhere& all) {
    app.option_defaults()->group("Headsets");
    app.add_option("--headsets", all.count, "How many headsets there are")
        ->check(CLI::Range(0, 16))
        ->capture_default_str();
    app.add_option("--channels", all.headset.channels, "Channels of each headset")->check(CLI::Range(1, 16));
    app.add_option("--rate", all.headset.sampleRate, "Samples per second and channel; 0: no raw data");
    addChoice(app, "--packing", all.headset.packing, {{"single", Packing::Single}, {"multi", Packing::Multi}},
              "What raw frames carry: samples of a single channel, or of all");
    addTime(app, "--battery-interval", all.headset.batteryInterval, "Time between battery frames; 0: none");
    addTime(app, "--post-interval", all.headset.postInterval, "Time between post frames; 0: none");
    app.add_option(
           "--headset", all.changes,
           "Change one headset, for example 2:channels=4,rate=500. Keys: address, name, flag, advertises, index, "
           "channels, rate, packing, battery, battery-extra, battery-interval, post-interval, fails, join-after, "
           "disconnect-after, rejoin-after, rejoin-index (times in ms, yes or no for advertises and fails)")
        ->type_name("N:KEY=VALUE,...")
        ->expected(1)
        ->take_all();
}

void addReplyOptions(CLI::App& app, ReplySettings& replies, std::string& scanFile) {
    app.option_defaults()->group("Replies");
    const std::map<std::string, std::string> lineEnds{{"lf", "\n"}, {"crlf", "\r\n"}};
    app.add_option("--ping-text", replies.pingText, "Answer to a ping; empty: none")->capture_default_str();
    app.add_option("--boot-text", replies.bootText, "Text of a restart")->capture_default_str();
    app.add_option("--disconnect-reason", replies.disconnectReason, "Last field of a disconnection report");
    addChoice(app, "--line-end", replies.lineEnd, lineEnds, "End of scan lines, connection reports and lists");
    addChoice(app, "--end-line-end", replies.endLineEnd, lineEnds, "End of end texts and disconnection reports");
    app.add_option("--scan-lines", scanFile, "File with the lines that a scan shows instead of the headsets")
        ->check(CLI::ExistingFile);
    addTime(app, "--scan-duration", replies.scanDuration, "From a scan's request to its end text");
    addTime(app, "--connect-duration", replies.connectDuration, "What each headset of a group connection takes");
    addTime(app, "--stream-delay", replies.streamDelay, "From the end of a group connection to the first data");
    addTime(app, "--response-delay", replies.responseDelay, "From a command to its response");
    addTime(app, "--delay", replies.delay, "On top of every reply and response");
    addChoice(app, "--response-mark", replies.responseMark, {{"DD", std::uint8_t{0xDD}}, {"EE", std::uint8_t{0xEE}}},
              "Second byte of response frames");
    addNo(app, "--no-scan", replies.scan, "Scans get no answer");
    addNo(app, "--no-scan-end", replies.scanEnd, "Scans get no end text");
    addNo(app, "--no-connect", replies.connect, "Group connections get no answer");
    addNo(app, "--no-connect-end", replies.connectEnd, "Group connections get no end text");
    addNo(app, "--no-disconnect-report", replies.disconnect, "No report when the host disconnects a headset");
    addChoice(app, "--second-group", replies.secondGroup,
              {{"accept", SecondGroup::Accept}, {"ignore", SecondGroup::Ignore}, {"drop", SecondGroup::DropOthers}},
              "A group connection while headsets are connected: adds to them (default), gets no answer, or drops those "
              "that it does not name");
    addNo(app, "--no-responses", replies.commands, "Headsets do not respond to commands");
}

void addLineOptions(CLI::App& app, LineSettings& line) {
    app.option_defaults()->group("Line");
    app.add_option("--line-rate", line.bytesPerSecond, "Data bytes per second that the line carries; 0: no limit")
        ->capture_default_str();
    app.add_option("--fill", line.fillBytesPerSecond, "Fill the line with raw data at this many bytes per second");
    app.add_option("--largest-burst", line.largestBurst, "Data bytes per write")->capture_default_str();
    addTime(app, "--burst-interval", line.burstInterval, "Time between bursts of data");
    addTime(app, "--data-gap", line.dataGap, "Quiet time around a burst of data");
    addTime(app, "--text-gap", line.textGap, "Quiet time around a text");
    addNo(app, "--no-gaps", line.gaps, "No quiet time at all");
    app.add_flag("--data-during-text", line.dataDuringText, "Texts of a connected group go out amid the data");
    app.add_option("--text-cuts", line.textCuts, "Sizes of the pieces that each text is cut into")->delimiter(',');
    app.add_flag("--text-cuts-random", line.textCutsRandom, "Cut texts at random places");
}

void addFaultOptions(CLI::App& app, Settings& settings) {
    app.option_defaults()->group("Faults");
    FaultSettings& faults = settings.faults;
    app.add_option("--seed", faults.seed, "Start of the random generator")->capture_default_str();
    app.add_option("--lose-every", faults.loseEvery, "Lose every that many-th raw frame of a headset");
    addProbability(app, "--lose", faults.lose, "Probability that a raw frame is lost");
    addProbability(app, "--repeat", faults.repeat, "Probability that a raw frame is sent twice");
    addProbability(app, "--corrupt", faults.corrupt, "Probability that a frame has a wrong byte");
    addProbability(app, "--split", faults.split, "Probability that a frame is cut by the end of a write");
    addProbability(app, "--stray", faults.stray, "Probability of stray bytes in front of a frame");
    app.add_option("--stray-most", faults.strayMost, "Most stray bytes at once")->capture_default_str();
    addTime(app, "--restart-after", faults.restartAfter, "Restart after that time");
    addTime(app, "--restart-every", faults.restartEvery, "Restart again and again, that long apart");
    addTime(app, "--hang-up-after", faults.hangUpAfter,
            "Hang up after that time; the program then ends, unless --replug-every is given too");
    addTime(app, "--replug-every", faults.replugEvery,
            "Unplug and plug in again, again and again, that long apart: the host meets a new terminal");
    addTime(app, "--replug-away", faults.replugAway, "How long it stays unplugged; 1000 ms unless said otherwise");
    addTime(app, "--silence-after", faults.silenceAfter, "Send nothing any more after that time");
    addChoice(
        app, "--timers-from", settings.timersFrom,
        {{"start", TimersFrom::Start}, {"connection", TimersFrom::FirstConnection}},
        "What restart, hang-up, silence and joining count from: the dongle's start, or the end of the first group "
        "connection (default)");
}

void buildHeadsets(const Everywhere& all, Settings& settings) {
    for (int number = 1; number <= all.count; ++number) {
        const HeadsetSettings own = defaultHeadset(number);
        HeadsetSettings headset = all.headset;
        headset.address = own.address;
        headset.name = own.name;
        headset.index = own.index;
        settings.headsets.push_back(headset);
    }
    for (const std::string& change : all.changes) {
        if (const auto problem = changeHeadset(change, settings)) {
            throw CLI::ValidationError("--headset", *problem);
        }
    }
}

std::vector<std::string> readLines(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    if (lines.empty()) {
        throw CLI::ValidationError("--scan-lines", path + " cannot be read or holds no line");
    }
    return lines;
}

}  // namespace

std::optional<int> parseCommandLine(int argc, const char* const* argv, ProgramOptions& options) {
    CLI::App app("A virtual dongle with headsets: what a host sees at the port of the real one.", "velmora-dongle");
    app.footer(
        std::string(kHelp) +
        "\nExit codes: 0 the program did what it was told and ended, 2 the command line cannot be used, 3 trouble with "
        "the port, a link or the account's file.");
    Everywhere all;
    std::string scanFile;
    addPortOptions(app, options);
    addHeadsetOptions(app, all);
    addReplyOptions(app, options.settings.replies, scanFile);
    addLineOptions(app, options.settings.line);
    addFaultOptions(app, options.settings);
    try {
        app.parse(argc, argv);
        buildHeadsets(all, options.settings);
        if (!scanFile.empty()) {
            options.settings.replies.scanLines = readLines(scanFile);
        }
        options.settings.account = !options.accountFile.empty();
        if (const auto problem = problemWith(options.settings)) {
            throw CLI::ValidationError("settings", *problem);
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitFine : kExitUsage;
    }
    return std::nullopt;
}

}  // namespace dongle
