#include "sdk/log_setup.h"

#include <cstdlib>
#include <fstream>
#include <loguru/loguru.hpp>

#include "base/log.h"
#include "support/log_capture.h"
#include "support/testing.h"
#include "support/working_folder.h"

namespace kxorbeta_if {
namespace {

TEST(LogSetUp, EveryLevelMeansWhatItSays) {
    const struct {
        unsigned level;
        bool file, truncates;
        int verbosity;
        bool rawDump, merged;
    } cases[] = {
        {0, false, false, 0, false, false},    {1, true, false, 0, false, false},
        {2, true, false, 1, false, false},     {3, true, true, 2, false, false},
        {5, true, true, 4, false, false},      {6, true, true, 5, true, false},
        {10, true, true, 9, true, false},      {11, true, true, 9, true, false},
        {0x7FFF, true, true, 9, true, false},  {0x8000, false, false, 0, false, true},
        {0x8001, true, false, 0, false, true}, {0x8009, true, true, 8, true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.level);
        const test::WorkingFolder folder;
        std::ofstream(kLogFile) << "from before\n";
        Flags flags;
        setUpLogging(c.level, flags, "9.99");
        for (int level = 0; level <= 9; ++level) {
            KX_LOG(level, "message of verbosity %d", level);
        }
        KX_LOG(-2, "an error");
        const std::string text = folder.read(kLogFile);
        EXPECT_EQ(flags.rawDump, c.rawDump);
        EXPECT_EQ(flags.mergedChannels, c.merged);
        EXPECT_EQ(text.find("from before") == std::string::npos, c.file && c.truncates);
        EXPECT_EQ(text.find("KXSDK init. ver: 9.99.") != std::string::npos, c.file);
        EXPECT_EQ(text.find("an error") != std::string::npos, c.file);
        for (int level = 0; level <= 9; ++level) {
            const bool wanted = c.file && level <= c.verbosity;
            EXPECT_EQ(text.find("message of verbosity " + std::to_string(level)) != std::string::npos, wanted) << level;
        }
        logCloseFile(kLogFile);
    }
}

TEST(LogSetUp, NothingGoesToTheConsole) {
    const test::WorkingFolder folder;
    Flags flags;
    loguru::g_stderr_verbosity = loguru::Verbosity_INFO;
    testing::internal::CaptureStderr();
    setUpLogging(1, flags, "1");
    KX_LOG(-2, "an error");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    logCloseFile(kLogFile);
}

TEST(LogSetUpDeathTest, AShutdownClosesTheFileAndDropsWhatComesLater) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const test::WorkingFolder folder;
    EXPECT_EXIT(
        {
            Flags flags;
            setUpLogging(1, flags, "1");
            const bool wasOpen = logCutoff >= verbosity::kInfo;
            logShutdown(kLogFile);
            const bool closed = logCutoff < verbosity::kWarning;
            const test::LogCapture later(0);
            KX_LOG(verbosity::kWarning, "too late");
            std::exit(wasOpen && closed && later.lines().empty() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

int evaluated = 0;
int evaluate() {
    return ++evaluated;
}

TEST(LogSetUp, RecordsCarryTheirSourceAndAreMadeOnlyWhenWanted) {
    const test::WorkingFolder folder;
    Flags flags;
    setUpLogging(1, flags, "1");
    evaluated = 0;
    KX_LOG(1, "not wanted %d", evaluate());
    EXPECT_EQ(evaluated, 0);
    const unsigned line = __LINE__ + 1;
    KX_LOG(-1, "wanted %d", evaluate());
    EXPECT_EQ(evaluated, 1);
    const std::string longText(100000, 'x');
    KX_LOG(0, "%s<end>", longText.c_str());
    const std::string text = folder.read(kLogFile);
    EXPECT_NE(text.find(" orbeta_if:" + std::to_string(line) + " "), std::string::npos) << text.substr(0, 2000);
    EXPECT_NE(text.find("WARN| wanted 1"), std::string::npos);
    EXPECT_NE(text.find(longText + "<end>"), std::string::npos);
    logCloseFile(kLogFile);
}

}  // namespace
}  // namespace kxorbeta_if
