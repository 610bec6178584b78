#include <unistd.h>

#include <cstdlib>

#include "record/local_time.h"
#include "record/output_file.h"
#include "support/ordinary_user_posix.h"
#include "support/testing.h"
#include "support/working_folder.h"

namespace {

using namespace velmora::record;

TEST(Files, ForbiddenFoldersAreCalledSo) {
    const test::WorkingFolder here;
    std::filesystem::permissions(".", std::filesystem::perms::all);
    std::filesystem::create_directory("closed");
    std::filesystem::permissions("closed", std::filesystem::perms::owner_read);
    const auto forbidden = [] {
        try {
            systemFiles().create("closed/a.edf", {}, IfExists::Refuse);
            return false;
        } catch (const FileError& error) {
            return error.reason() == FileError::Reason::Forbidden;
        }
    };
    EXPECT_EQ(test::asOrdinaryUser(forbidden), 1);
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
