// The program as a user runs it.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "support/testing.h"

namespace dongle::test {

/// A run of velmora-dongle with words that a shell splits; what it prints, errors included, comes through a pipe.
struct Program {
    explicit Program(const std::string& arguments)
        : output(::popen(("echo $$; exec '" VELMORA_DONGLE "' " + arguments + " 2>&1").c_str(), "re")) {}
    std::string line() {
        std::array<char, 1000> text{};
        return std::fgets(text.data(), text.size(), output) == nullptr ? "" : text.data();
    }
    /// Waits for the end; the rest of the output is in `rest` then.
    int exitCode() {
        for (std::string text = line(); !text.empty(); text = line()) {
            rest += text;
        }
        const int status = ::pclose(output);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::FILE* output;
    pid_t id = std::stoi(line());
    std::string rest;
};

const std::string kLink = std::filesystem::temp_directory_path() / ("dongle-test-" + std::to_string(::getpid()));

TEST(Program, TellsHowToReachItPrintsRequestsAndRemovesItsLink) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        Program program("--duration 20000 --link " + kLink);
        EXPECT_TRUE(program.line().starts_with("velmora-dongle: ready on " + kLink));
        const int host = ::open(kLink.c_str(), O_RDWR | O_NOCTTY);
        EXPECT_EQ(::write(host, "AT+PING", 7), 7);
        EXPECT_EQ(program.line(), "host: AT+PING\n");
        ::kill(program.id, number);
        EXPECT_EQ(program.exitCode(), 0);
        EXPECT_TRUE(program.rest.starts_with("summary: 1 requests of the host")) << program.rest;
        EXPECT_FALSE(std::filesystem::is_symlink(kLink));
        ::close(host);
    }
}

TEST(Program, ReplacesOnlyALinkThatADongleHasLeft) {
    // Of a terminal that exists nobody can tell whose it is.
    for (const std::string target : {"/elsewhere", "/dev/pts/ptmx", "/dev/pts/999999"}) {
        std::filesystem::create_symlink(target, kLink);
        EXPECT_EQ(Program("--duration 1 --link " + kLink).exitCode(), target.ends_with("9") ? 0 : 3);
        EXPECT_EQ(std::filesystem::remove(kLink), !target.ends_with("9")) << target;
    }
}

TEST(Program, ComesBackUnderItsOtherNameAndWritesWhatBecameOfEveryPacket) {
    const std::string file = kLink + ".csv";
    Program program(
        "--fill 20000 --timers-from start --headset 1:join-after=1 --replug-every 400 --replug-away 50 --account " +
        file + " --link " + kLink + " --link " + kLink + "b");
    for (const std::string name : {"", "b", "", "b"}) {
        const std::string line = program.line();
        EXPECT_TRUE(line.starts_with("velmora-dongle: ready on " + kLink + name + " (a link to /dev/pts/")) << line;
    }
    ::kill(program.id, SIGTERM);
    EXPECT_EQ(program.exitCode(), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(kLink) || std::filesystem::is_symlink(kLink + "b"));
    EXPECT_NE(program.rest.find(" packets = 0 lost + "), std::string::npos) << program.rest;
    std::ifstream lines(file);
    std::string title, first;
    std::getline(lines, title);
    EXPECT_TRUE(std::getline(lines, first) && first.starts_with("A1B2C3D4E501,1,raw,0,")) << first;
    std::filesystem::remove(file);
}

TEST(Program, TakesOptionsAndSaysWhatItCannotUse) {
    const std::string scanLines = kLink + ".txt";
    std::ofstream(scanLines) << "anything\n";
    const std::vector<std::tuple<std::string, int, std::string>> cases{
        {"--duration 1 --headset 2:address=AABBCCDDEEFF,index=9,join-after=5 --timers-from start --fill 1000 --no-gaps "
         "--response-mark EE --text-cuts 1,2,3 --second-group drop --restart-every 9 --scan-lines " +
             scanLines,
         0, "headset AABBCCDDEEFF (device 9)"},
        {"--headset 9:rate=1", 2, "there is no headset 9, they have the numbers 1 to 2"},
        {"--headsets 0 --headset 1:rate=1", 2, "there is no headset 1, there are none at all"},
        {"--headset nine:rate=1", 2, "must begin with the number of a headset"},
        {"--account /nowhere/file", 3, "/nowhere/file cannot be written"},
        {"--timers-from start --replug-every 60 --replug-away 30 --link " + kLink + " --link /nowhere/link", 3,
         "no link can be made at /nowhere/link"},
        {"--channels 16 --packing multi", 2, "channels must be 1 to 15"},
        {"--headset 1:index=2", 2, "two headsets have the index 2"},
        {"--duration 1 --headset 1:rejoin-index=1", 2, "the index after rejoining must be another one"},
        {"--duration 1 --headset 1:rejoin-index=2", 2, "two headsets have the index 2"},
        {"--duration 1 --headset 1:rejoin-index=5 --headset 2:rejoin-index=5", 2, "two headsets have the index 5"},
        {"--duration 1 --replug-every 1000", 2, "shorter than the time between two unpluggings"},
        {"--duration 1 --replug-every 9000 --replug-away 0", 2, "the time unplugged must be above 0"},
        {"--port /nowhere/port", 3, "/nowhere/port"},
        {"--link /", 3, "exists and is not a link"},
    };
    for (const auto& [arguments, exitCode, text] : cases) {
        Program program(arguments);
        EXPECT_EQ(program.exitCode(), exitCode) << arguments;
        EXPECT_NE(program.rest.find(text), std::string::npos) << program.rest;
    }
    std::filesystem::remove(scanLines);
}

}  // namespace dongle::test
