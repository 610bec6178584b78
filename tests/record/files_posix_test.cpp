#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <thread>

#include "record/edf_reader.h"
#include "record/local_time.h"
#include "record/output_file.h"
#include "record/recording.h"
#include "record/simulated_headset.h"
#include "support/working_folder.h"

namespace {

using namespace velmora::record;
using test::EdfFile;

TEST(Files, ForbiddenFoldersAreCalledSo) {
    if (::geteuid() == 0)
        GTEST_SKIP() << "root may write everywhere";
    const test::WorkingFolder here;
    std::filesystem::create_directory("closed");
    std::filesystem::permissions("closed", std::filesystem::perms::owner_read);
    try {
        systemFiles().create("closed/a.edf", {}, IfExists::Refuse);
        ADD_FAILURE();
    } catch (const FileError& error) {
        EXPECT_EQ(error.reason(), FileError::Reason::Forbidden);
    }
}

// A process that records as fast as it can is killed, again and again. It spends much of its time where strict readers
// refuse what it leaves, a thousand times as much as one that records as data comes.
TEST(Files, AKilledProgramLeavesAFileThatOpens) {
    const auto records = test::SimulatedHeadset{.seconds = 20, .lossShare = 0.1}.records();
    std::mt19937 random(5);
    int opened = 0;
    int refused = 0;
    for (int i = 0; i < 15; ++i) {
        const test::WorkingFolder here;
        const pid_t child = ::fork();
        if (child == 0) {
            for (int take = 0;; ++take)
                test::recordInto(std::to_string(take), records);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(5'000 + random() % 40'000));
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        for (const auto& entry : std::filesystem::directory_iterator(".")) {
            const std::string path = entry.path().string();
            if (entry.path().extension() != ".edf")
                continue;
            EdfReader reader(path);
            for (std::uint64_t record = 0; record < reader.records(); ++record)
                EXPECT_NO_THROW(reader.record(record));
            try {
                EXPECT_EQ(test::difference(EdfFile::read(path), records, 500, 0, 0), "") << path;
                ++opened;
            } catch (const std::runtime_error&) {
                ++refused;
            }
        }
    }
    EXPECT_GT(opened, 5 * refused);
}

TEST(LocalTime, IsThatOfTheZoneAndTheSeason) {
    const char* before = std::getenv("TZ");
    const std::string kept = before == nullptr ? "" : before;
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    EXPECT_EQ(localOffset(1'705'312'800'000'000'000), 3600);  // January 2024
    EXPECT_EQ(localOffset(1'721'037'600'000'000'000), 7200);  // July
    before == nullptr ? ::unsetenv("TZ") : ::setenv("TZ", kept.c_str(), 1);
    ::tzset();
}

}  // namespace
