#include "cli/arguments.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <stdexcept>

#include "cli/commands.h"
#include "cli/failure.h"

namespace velmora::cli {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  velmora doctor                           what is missing, and the command that mends it\n"
    "  velmora scan                             the headsets that are near\n"
    "  velmora record -o monday --all           all of them, an EDF+ file for each, until Ctrl-C\n"
    "  velmora plot monday.edf -o monday.svg    a picture of such a file\n"
    "  velmora view --all                       their signals, live, in the browser\n"
    "  velmora stream --all                     a live table of all of them, until Ctrl-C\n"
    "  velmora send XAI-01 -c 0x21              a command, and the answer to it\n"
    "  velmora COMMAND --help                   more about each\n";

std::string footer(const std::string& examples) {
    return "Examples:\n" + examples + "\n" + kExitCodesHelp;
}

void addPort(CLI::App& app, std::string& port) {
    app.add_option("-p,--port", port,
                   "Port of the dongle as the system names it (/dev/ttyUSB0, COM5); without it: search")
        ->check([](const std::string& text) { return text.empty() ? "a port has a name" : ""; });
}

void addQuiet(CLI::App& app, bool& quiet) {
    app.add_flag("-q,--quiet", quiet, "Tell no progress, only results, warnings and errors");
}

void addOutput(CLI::App& app, bool& quiet, bool& json, const std::string& help) {
    addQuiet(app, quiet);
    app.add_flag("--json", json, help);
}

void addSeconds(CLI::App& app, const std::string& names, const std::string& help,
                const std::function<void(double)>& set) {
    const auto parse = [names, set](const std::string& text) {
        const auto seconds = parseSeconds(text);
        if (!seconds) {
            throw CLI::ValidationError(names, text + " is not a time above 0 such as 10, 0.5, 90s, 5m or 1h");
        }
        set(*seconds);
    };
    app.add_option_function<std::string>(names, parse, help)->type_name("TIME");
}

/// A number in decimal or, after 0x, in hexadecimal digits, of at most `most`.
CLI::Option* addNumber(CLI::App& app, const std::string& names, std::uint32_t most, const std::string& help,
                       const std::function<void(std::uint32_t)>& set) {
    const auto parse = [names, most, set](const std::string& text) {
        const auto number = parseNumber(text, most);
        if (!number) {
            throw CLI::ValidationError(names, text + " is not a number from 0 to " + std::to_string(most));
        }
        set(*number);
    };
    return app.add_option_function<std::string>(names, parse, help)->type_name("NUMBER");
}

/// --no-scan, which wants addresses.
void addNoScan(CLI::App& app, Choice& choice) {
    addNumber(app, "--no-scan", 1, "Connect addresses without looking for them first; their option as scan shows it",
              [&choice](std::uint32_t option) { choice.option = static_cast<int>(option); })
        ->type_name("OPTION");
}

void check(const Choice& choice) {
    const auto& wanted = choice.headsets.wanted;
    const bool addresses = std::all_of(wanted.begin(), wanted.end(),
                                       [](const std::string& text) { return parseAddress(text).has_value(); });
    if (choice.option && (wanted.empty() || !addresses)) {
        throw CLI::ValidationError("--no-scan", "needs the addresses of the headsets");
    }
    if (choice.headsets.all && !wanted.empty()) {
        throw CLI::ValidationError("--all", "excludes naming headsets");
    }
}

void addHeadsets(CLI::App& app, Choice& choice) {
    addPort(app, choice.port);
    app.add_option("HEADSETS", choice.headsets.wanted,
                   "Addresses or names as scan shows them; without any: the only one that a scan finds");
    app.add_flag("-a,--all", choice.headsets.all, "All headsets that a scan finds");
    addNoScan(app, choice);
}

void addReception(CLI::App& app, ReceptionOptions& options) {
    addSeconds(app, "-s,--seconds", "End after that time (10, 90s, 5m, 1h); without it: at Ctrl-C",
               [&options](double seconds) { options.seconds = seconds; });
    app.add_flag("--keep-going", options.keepGoing,
                 "After a restart or an unplugging connect again and go on, instead of ending with 5");
}

void addViewSettings(CLI::App& app, ViewSettings& settings) {
    addNumber(app, "--port-http", 65535, "Port to serve the page at; without it: one that is free",
              [&settings](std::uint32_t port) { settings.server.port = static_cast<std::uint16_t>(port); });
    app.add_option("--listen", settings.server.listen,
                   "Address of this machine to serve it at; 0.0.0.0: to the whole network, without encryption")
        ->type_name("ADDRESS")
        ->capture_default_str();
    addNumber(app, "--clients", 64, "How many may look on at the same time; 8 unless said otherwise",
              [&settings](std::uint32_t clients) {
                  if (clients == 0) {
                      throw CLI::ValidationError("--clients", "somebody has to be allowed to look on");
                  }
                  settings.server.clients = clients;
              });
    app.add_flag_callback(
        "--no-browser", [&settings] { settings.browser = false; },
        "Only print the address, and leave the browser closed");
}

void check(const record::Options& recording) {
    try {
        record::checkOptions(recording);
    } catch (const std::invalid_argument& error) {
        throw CLI::ValidationError("record", error.what());
    }
}

/// A command whose options live as long as the invocation. `addOptions` gets them and the flag for quiet runs.
template <typename Options>
void addCommand(CLI::App& app, Invocation& invocation, const std::string& name, const std::string& help,
                void (*addOptions)(CLI::App&, Options&, bool& quiet), void (*run)(const Options&, Reporter&)) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *app.add_subcommand(name, help);
    addOptions(command, *options, invocation.quiet);
    command.final_callback([&invocation, options, run] {
        if constexpr (requires { options->choice; }) {
            check(options->choice);
        }
        if constexpr (requires { options->recording; }) {
            check(options->recording);
        }
        invocation.command = [options, run](Reporter& reporter) { run(*options, reporter); };
    });
}

void addFind(CLI::App& command, FindOptions& options, bool& quiet) {
    command.add_flag("--all-ports", options.allPorts,
                     "Ask every serial port, not only those on USB; that also happens when none is on USB");
    addOutput(command, quiet, options.json, "Print all ports, with what is known of each, as JSON");
    command.footer(footer("  velmora find\n  velmora find --json\n"));
}

void addScan(CLI::App& command, ScanOptions& options, bool& quiet) {
    addPort(command, options.port);
    addOutput(command, quiet, options.json, "Print them as JSON");
    command.footer(footer("  velmora scan\n  velmora scan --port COM5 --json\n"));
}

void addStream(CLI::App& command, StreamOptions& options, bool& quiet) {
    addHeadsets(command, options.choice);
    addReception(command, options.reception);
    command.add_option("--max-loss", options.maxLoss, "End with 8 when a headset lost more of its packets than that")
        ->check(CLI::Range(0.0, 100.0))
        ->type_name("PERCENT");
    addOutput(command, quiet, options.json, "Print the counts at the end as JSON");
    command.footer(
        footer("  velmora stream --all\n"
               "  velmora stream XAI-01 A1B2C3D4E502 --seconds 1m\n"
               "  velmora stream --all --seconds 10 --json --quiet\n"));
}

constexpr const char* kRecordHelp =
    "Files: NAME.edf for one headset and NAME-ADDRESS.edf for several, or the same with .csv when NAME ends so;\n"
    "NAME.json with rates, start and losses; NAME-processed.csv when headsets send such data. Lost samples are filled\n"
    "and annotated (EDF+), or empty cells (CSV). A recording that is killed keeps all but the last second.\n";

constexpr const char* kViewHelp =
    "The address is good for one browser, once; each use prints the next one. Programs of others connect to it as "
    "well:\n"
    "docs/view-protocol.md. Restarts and unpluggings are shown, and connected again.\n";

void addView(CLI::App& command, ViewOptions& options, bool& quiet) {
    addHeadsets(command, options.choice);
    addSeconds(command, "-s,--seconds", "End after that time (10, 90s, 5m, 1h); without it: at Ctrl-C",
               [&options](double seconds) { options.reception.seconds = seconds; });
    addViewSettings(command, options.view);
    addQuiet(command, quiet);
    command.footer(std::string(kViewHelp) + "\n" +
                   footer("  velmora view --all\n"
                          "  velmora view XAI-01 --no-browser --port-http 8080\n"
                          "  velmora view --all --listen 0.0.0.0 --clients 3\n"));
}

void addRecord(CLI::App& command, RecordOptions& options, bool& quiet) {
    addHeadsets(command, options.choice);
    addReception(command, options.reception);
    record::Options& recording = options.recording;
    const auto setTarget = [&recording](const std::string& name) {
        try {
            recording.target = record::Target::parse(name);
        } catch (const std::invalid_argument& error) {
            throw CLI::ValidationError("--output", error.what());
        }
    };
    command.add_option_function<std::string>("-o,--output", setTarget, "Name of the files; see below")
        ->type_name("NAME")
        ->required();
    command.add_flag("-f,--force", recording.force, "Overwrite files that exist");
    command.add_option("--rate", recording.rate, "Samples per second of a channel; without it: measured")
        ->type_name("HZ");
    command.add_option("--unit", recording.unit, "Unit of the samples, for example uV");
    command.add_option("--gain", recording.gain, "Units for each step of a sample; 1 unless said otherwise");
    command.add_option("--labels", recording.labels, "Names of the channels: C3,C4,O1")->delimiter(',');
    const auto addMark = [&options](const std::string& text) {
        const auto mark = parseMark(text);
        if (!mark) {
            throw CLI::ValidationError("--mark", text + " is not a key and a text, such as b=blink");
        }
        if (std::any_of(options.marks.begin(), options.marks.end(),
                        [&mark](const Mark& other) { return other.key == mark->key; })) {
            throw CLI::ValidationError("--mark", text + " has a key that another mark has already");
        }
        options.marks.push_back(*mark);
    };
    command
        .add_option_function<std::vector<std::string>>(
            "-m,--mark",
            [addMark](const std::vector<std::string>& texts) { std::for_each(texts.begin(), texts.end(), addMark); },
            "A key that writes that text into the recording, for example b=blink; more than one may be given")
        ->type_name("KEY=TEXT")
        ->expected(1)
        ->take_all();
    command
        .add_option("--max-loss", options.maxLoss,
                    "End with 8 when a headset lost more of its packets than that; 5 unless said otherwise")
        ->check(CLI::Range(0.0, 100.0))
        ->type_name("PERCENT");
    addQuiet(command, quiet);
    CLI::Option* const view = command.add_flag("--view", options.view,
                                               "Show the signals in the browser meanwhile; more: velmora view --help");
    CLI::App* const group = command.add_option_group("With --view");
    addViewSettings(*group, options.viewSettings);
    for (CLI::Option* const option : group->get_options()) {
        option->needs(view);
    }
    command.footer(std::string(kRecordHelp) + "\n" +
                   footer("  velmora record -o monday XAI-01 --seconds 10m --mark b=blink\n"
                          "  velmora record -o night --all --keep-going --unit uV --gain 0.195\n"
                          "  velmora record -o monday --all --view --mark b=blink --mark t=talk\n"
                          "  velmora record -o table.csv\n"));
}

void addPlot(CLI::App& command, PlotOptions& options, bool&) {
    command.add_option("FILE", options.file, "The file, as record writes it")->required();
    command.add_option("-o,--output", options.output, "The picture; - for standard output")
        ->required()
        ->check([](const std::string& text) { return text.empty() ? "a picture needs the name of a file" : ""; });
    command.add_flag("-f,--force", options.force, "Overwrite it if it exists");
    addSeconds(command, "--from", "Begin that long after the start",
               [&options](double seconds) { options.picture.from = seconds; });
    addSeconds(command, "--length", "Draw so much; without it: to the end",
               [&options](double seconds) { options.picture.length = seconds; });
    command.add_option("--width", options.picture.width, "Pixels")
        ->check(CLI::Range(400, 20000))
        ->capture_default_str();
    command.footer(
        footer("  velmora plot monday.edf -o monday.svg\n"
               "  velmora plot monday.edf -o minute.svg --from 5m --length 1m\n"));
}

void addSend(CLI::App& command, SendOptions& options, bool& quiet) {
    addPort(command, options.choice.port);
    auto* headset = command.add_option_function<std::string>(
        "HEADSET", [&options](const std::string& text) { options.choice.headsets.wanted = {text}; },
        "Address or name as scan shows it; without it: the only one that a scan finds");
    addNoScan(command, options.choice);
    auto* index = addNumber(command, "-i,--index", 15,
                            "Index of a headset that is connected already; it is neither connected nor dropped",
                            [&options](std::uint32_t number) { options.index = static_cast<int>(number); });
    auto* all = command.add_flag_callback(
        "-a,--all", [&options] { options.index = VELMORA_ALL; }, "To all that are connected already");
    index->excludes(headset);
    all->excludes(headset)->excludes(index);
    addNumber(command, "-c,--command", 0xFF, "Command code of the headset's firmware",
              [&options](std::uint32_t number) { options.command = static_cast<std::uint8_t>(number); })
        ->required();
    const auto setPayload = [&options](const std::string& text) {
        const auto payload = parsePayload(text);
        if (!payload) {
            throw CLI::ValidationError("--payload", text + " is not a row of bytes such as 01ff20 or 01:ff:20");
        }
        const std::size_t size = payload->size();
        if (!(size <= 4 || size == 8 || (size >= 10 && size <= 12))) {
            throw CLI::ValidationError("--payload", "commands carry 0 to 4, 8, 10, 11 or 12 bytes");
        }
        options.payload = *payload;
    };
    command
        .add_option_function<std::string>("--payload", setPayload,
                                          "0 to 4, 8, 10, 11 or 12 bytes; with 4 and 12 the last one goes out in "
                                          "place of the command code")
        ->type_name("HEX");
    addSeconds(command, "-t,--timeout", "How long to wait for the answer; 1 second unless said otherwise",
               [&options](double seconds) { options.seconds = std::min(seconds, 1e6); });
    command.add_flag("--keep", options.keep, "Leave the headset connected, for commands with --index");
    command.add_flag("--shared", options.shared,
                     "For an index that the dongle's language cannot reach alone (0, 10, 12 to 15): send the text that "
                     "other headsets get too");
    addQuiet(command, quiet);
    command.footer(
        footer("  velmora send XAI-01 -c 0x21 --payload 01:02:03\n"
               "  velmora send XAI-01 -c 0x21 --keep && velmora send --index 1 -c 0x22\n"));
}

void addReset(CLI::App& command, ResetOptions& options, bool& quiet) {
    addPort(command, options.port);
    addQuiet(command, quiet);
    command.footer(footer("  velmora reset\n"));
}

void addDoctor(CLI::App& command, DoctorOptions& options, bool& quiet) {
    addPort(command, options.port);
    addOutput(command, quiet, options.json, "Print the findings as JSON");
    command.footer(footer("  velmora doctor\n  velmora doctor --port /dev/ttyUSB1 --json\n"));
}

}  // namespace

std::optional<int> parseCommandLine(std::vector<std::string> arguments, Invocation& invocation) {
    CLI::App app("Works with headsets through their USB dongle.", "velmora");
    app.footer(std::string(kExamples) + "\n" + kExitCodesHelp);
    app.set_version_flag("--version", std::string("velmora ") + velmora_version());
    app.require_subcommand(1);
    const auto add = [&](const std::string& name, const std::string& help, auto addOptions, auto run) {
        addCommand(app, invocation, name, help, addOptions, run);
    };
    add("doctor", "Look at ports, permissions, dongle and a second of data; say what to mend, and how", addDoctor,
        doctorCommand);
    add("find", "Print the ports of dongles, one a line", addFind, findCommand);
    add("scan", "Print the headsets that the dongle finds", addScan, scanCommand);
    add("record", "Record headsets to EDF+ or CSV files", addRecord, recordCommand);
    add("view", "Show signals live in the browser", addView, viewCommand);
    add("plot", "Draw an EDF+ file as an SVG picture", addPlot, plotCommand);
    add("stream", "Show what headsets send, with rates and losses", addStream, streamCommand);
    add("send", "Connect a headset, send it a command, show its answer, and drop it again", addSend, sendCommand);
    add("reset", "Let the dongle drop all headsets, such as those of a run that did not end in order", addReset,
        resetCommand);
    std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return std::nullopt;
}

}  // namespace velmora::cli
