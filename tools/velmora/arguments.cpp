#include "velmora/arguments.h"

#include <VelmoraSDK.h>

#include <CLI/CLI.hpp>
#include <limits>
#include <memory>

#include "velmora/failure.h"
#include "velmora/headset_command.h"

namespace velmora {

namespace {

constexpr const char* kStreamHelp =
    "Each device's line shows, over the last 5 seconds, its packets, its channels x the samples of each, and since "
    "the\n"
    "start the packets with nothing but zeros: most likely substitutes, with which the library bridges one or two "
    "lost\n"
    "packets, but an idle input looks the same. Longer losses do not show.\n"
    "\n"
    "The CSV file has one row per raw sample, under the titles time,device,channel,sample,value:\n"
    "  time     seconds from the start of collection to the arrival of the sample's packet\n"
    "  device   the headset's index at the dongle\n"
    "  channel  from 0\n"
    "  sample   number of the sample in its channel, from 0; a gap means that rows were dropped,\n"
    "           because the file could not keep up\n"
    "  value    as the headset sent it; zeros that stand in for lost packets are rows like others\n";

constexpr const char* kSendHelp =
    "Numbers are decimal, or hexadecimal after 0x. Nothing tells whether a command arrived: this waits until\n"
    "it must have left, and until data that comes after that shows that the link is alive.\n";

std::string problemWithSeconds(const std::string& text) {
    double seconds = 0;
    return CLI::detail::lexical_cast(text, seconds) && seconds > 0 ? "" : "needs a number of seconds above 0";
}

void addPort(CLI::App& app, std::string& port) {
    app.add_option("-p,--port", port, "Port of the dongle, for example COM5 or a device path; without it: search")
        ->check([](const std::string& text) {
            return text.empty() || text.size() > 59 ? "a port name has 1 to 59 characters" : "";
        });
}

void addChoice(CLI::App& app, HeadsetChoice& choice) {
    addPort(app, choice.port);
    app.add_option("-a,--address", choice.address,
                   "Address of the headset as scan shows it; without it: the first headset that a scan finds")
        ->check([](const std::string& text) {
            return isAddress(text) ? "" : "an address has 12 hexadecimal digits, perhaps with ':' between them";
        });
    app.add_option("--option", choice.option,
                   "Option of the headset as scan shows it; without it: what the scan of this run reports, or 0");
}

CLI::App* addCommand(CLI::App& app, const std::string& name, const std::string& help) {
    CLI::App* command = app.add_subcommand(name, help);
    command->footer(kExitCodesHelp);
    return command;
}

void addFind(CLI::App& app, Invocation& invocation) {
    addCommand(app, "find", "Search the dongle on all ports and print the port's name")->final_callback([&invocation] {
        invocation.command = findCommand;
    });
}

void addScan(CLI::App& app, Invocation& invocation) {
    auto* command = addCommand(app, "scan", "Print the headsets that the dongle finds");
    const auto port = std::make_shared<std::string>();
    addPort(*command, *port);
    command->final_callback(
        [&invocation, port] { invocation.command = [port](Session& session) { scanCommand(session, *port); }; });
}

void addStream(CLI::App& app, Invocation& invocation) {
    auto* command =
        addCommand(app, "stream", "Connect a headset, show its data rates and losses until Ctrl-C, and disconnect it");
    command->footer(std::string(kStreamHelp) + "\n" + kExitCodesHelp);
    const auto options = std::make_shared<StreamOptions>();
    addChoice(*command, options->choice);
    command->add_option("-s,--seconds", options->seconds, "End after that time; without it: at Ctrl-C")
        ->check(problemWithSeconds);
    command->add_option("--csv", options->csvFile, "Write the samples to this file, replacing it");
    command->add_flag("-q,--quiet", options->quiet, "Print only the summary at the end, and errors");
    command->final_callback([&invocation, options] {
        invocation.quiet = options->quiet;
        invocation.command = [options](Session& session) { streamCommand(session, *options); };
    });
}

/// A number in decimal or, after 0x, in hexadecimal digits, of at most `most`.
CLI::Option* addNumber(CLI::App& app, const std::string& names, std::uint32_t most, const std::string& help,
                       const std::function<void(std::uint32_t)>& set) {
    const auto parse = [names, most, set](const std::string& text) {
        const auto number = parseNumber(text, most);
        if (!number)
            throw CLI::ValidationError(names, text + " is not a number from 0 to " + std::to_string(most));
        set(*number);
    };
    return app.add_option_function<std::string>(names, parse, help)->type_name("NUMBER")->required();
}

void addSend(CLI::App& app, Invocation& invocation) {
    auto* command = addCommand(app, "send", "Connect a headset, send it one command, and disconnect it");
    command->footer(std::string(kSendHelp) + "\n" + kExitCodesHelp);
    const auto options = std::make_shared<SendOptions>();
    addChoice(*command, options->choice);
    addNumber(*command, "-t,--target", std::numeric_limits<std::uint32_t>::max(),
              "Index of the headset at the dongle, 0: all; 10 to 12 all go out as 11, 13 and more as 1",
              [options](std::uint32_t number) { options->target = number; });
    addNumber(*command, "-c,--command", 0xFF, "Command code of the headset's firmware",
              [options](std::uint32_t number) { options->command = static_cast<unsigned char>(number); });
    const auto setPayload = [options](const std::string& text) {
        const auto payload = parsePayload(text);
        if (!payload)
            throw CLI::ValidationError("--payload", text + " is not a row of bytes such as 01ff20 or 01:ff:20");
        if (const auto problem = problemWithPayload(payload->size()))
            throw CLI::ValidationError("--payload", *problem);
        options->payload = *payload;
    };
    command
        ->add_option_function<std::string>("--payload", setPayload,
                                           "0 to 4, 8, 10, 11 or 12 bytes; with 4 and 12 the last one goes out in "
                                           "place of the command code")
        ->type_name("HEX");
    command->final_callback([&invocation, options] {
        invocation.command = [options](Session& session) { sendCommand(session, *options); };
    });
}

}  // namespace

std::optional<int> parseCommandLine(int argc, const char* const* argv, Invocation& invocation) {
    CLI::App app("Works with headsets through their USB dongle.", "velmora");
    app.footer(kExitCodesHelp);
    app.set_version_flag("--version", [] { return std::string("VelmoraSDK ") + SDK_GetVersion(); });
    app.require_subcommand(1);
    addFind(app, invocation);
    addScan(app, invocation);
    addStream(app, invocation);
    addSend(app, invocation);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitDone : kExitUsage;
    }
    return std::nullopt;
}

}  // namespace velmora
