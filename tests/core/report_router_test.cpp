#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/text.h"
#include "core/report_router.h"
#include "support/exact_block.h"
#include "support/log_capture.h"

namespace kxorbeta_if {
namespace {

const std::string kReport = "Service connected. A1B2C3D4E5F6,12";

/// What one chunk leads to.
struct Routed {
    bool restarted;
    std::vector<std::string> log;
};

Routed route(const std::string& chunk) {
    DeviceRegistry registry;
    registry.append({"0123456789AB", 0, 1});
    CallbackTable callbacks;
    ReportRouter router({registry, callbacks});
    const test::LogCapture log(0);
    const test::ExactBlock exact({reinterpret_cast<const std::uint8_t*>(chunk.data()), chunk.size()});
    const bool restarted = router.route(asText(exact.span()));
    return {restarted, log.lines()};
}

TEST(ReportRouter, HandsTextToTheHandlersOfAllReportsInIt) {
    const std::string left = "Client disconnected,0123456789AB,19", list = "AT+LIST=none";
    const std::vector<std::string> leftLog = {"0 Update device 0123456789AB state to 0",
                                              "0 Device 0123456789AB disconnected."},
                                   listLog = {"0 No device connected"},
                                   joinedLog = {"0 A1B2C3D4E5F6(12) connected.", "0 Add device A1B2C3D4E5F6, index=12"},
                                   all = {leftLog[0], leftLog[1], listLog[0], joinedLog[0], joinedLog[1]};
    const struct {
        const char* what;
        std::string chunk;
        std::vector<std::string> log;
        bool restarted = false;
    } cases[] = {
        {.what = "nothing", .chunk = "Service conn, AT+LIS, Client disc, Boot", .log = {}},
        {.what = "whole chunk is the text", .chunk = "Bootup", .log = {}, .restarted = true},
        {.what = "restart in the middle", .chunk = "x Bootup\n", .log = {}, .restarted = true},
        {.what = "the text ends the chunk", .chunk = "x Bootup", .log = {}},
        {.what = "left", .chunk = left + "\n", .log = leftLog},
        {.what = "list", .chunk = list + "\n", .log = listLog},
        {.what = "joined", .chunk = kReport, .log = joinedLog},
        {.what = "all, in an order of their own", .chunk = kReport + "\n" + list + "\n" + left + ",", .log = all},
        {.what = "reports before a restart", .chunk = kReport + "\nBootup\n", .log = joinedLog, .restarted = true},
        {.what = "bytes between characters that are no text",
         .chunk = "Service connected. \r\x7F\x1F"
                  "A1B2\xFF\x80"
                  "C3D4E5F6,1\x01"
                  "2\n",
         .log = joinedLog},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const Routed routed = route(c.chunk);
        EXPECT_EQ(routed.log, c.log);
        EXPECT_EQ(routed.restarted, c.restarted);
    }
}

TEST(ReportRouter, ReadsTheFirst2999CharactersOfText) {
    const std::vector<std::string> whole = {"0 A1B2C3D4E5F6(12) connected.", "0 Add device A1B2C3D4E5F6, index=12"},
                                   cut = {"0 A1B2C3D4E5F6(1) connected.", "0 Add device A1B2C3D4E5F6, index=1"};
    const std::string noText(500, '\x80');
    const struct {
        std::size_t end;  // where the report ends, in characters of text
        std::size_t behind;
        std::vector<std::string> log;
    } cases[] = {
        {.end = 2998, .behind = 0, .log = whole}, {.end = 2999, .behind = 0, .log = whole},
        {.end = 2999, .behind = 1, .log = whole}, {.end = 2999, .behind = 7000, .log = whole},
        {.end = 3000, .behind = 0, .log = cut},   {.end = 3000, .behind = 7000, .log = cut},
        {.end = 3040, .behind = 0, .log = {}},    {.end = 9000, .behind = 1000, .log = {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.end) + " " + std::to_string(c.behind));
        const std::string before(c.end - kReport.size() - 1, '.');
        const Routed routed = route(noText + before + "\n" + kReport + std::string(c.behind, '.'));
        EXPECT_EQ(routed.log, c.log);
    }
}

}  // namespace
}  // namespace kxorbeta_if
