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

/// A chunk whose report ends at a place, in characters of text, with some behind it.
std::string reportEndingAt(std::size_t end, std::size_t behind) {
    return std::string(500, '\x80') + std::string(end - kReport.size() - 1, '.') + "\n" + kReport +
           std::string(behind, '.');
}

TEST(ReportRouter, HandsTheFirst2999CharactersOfTextToTheHandlersOfAllReportsInThem) {
    const std::string left = "Client disconnected,0123456789AB,19", list = "AT+LIST=none";
    const std::vector<std::string> leftLog = {"0 Update device 0123456789AB state to 0",
                                              "0 Device 0123456789AB disconnected."},
                                   listLog = {"0 No device connected"},
                                   joinedLog = {"0 A1B2C3D4E5F6(12) connected.", "0 Add device A1B2C3D4E5F6, index=12"},
                                   cutLog = {"0 A1B2C3D4E5F6(1) connected.", "0 Add device A1B2C3D4E5F6, index=1"},
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
        {.what = "2998", .chunk = reportEndingAt(2998, 0), .log = joinedLog},
        {.what = "2999", .chunk = reportEndingAt(2999, 0), .log = joinedLog},
        {.what = "2999 and one", .chunk = reportEndingAt(2999, 1), .log = joinedLog},
        {.what = "2999 and many", .chunk = reportEndingAt(2999, 7000), .log = joinedLog},
        {.what = "3000", .chunk = reportEndingAt(3000, 0), .log = cutLog},
        {.what = "3000 and many", .chunk = reportEndingAt(3000, 7000), .log = cutLog},
        {.what = "3040", .chunk = reportEndingAt(3040, 0), .log = {}},
        {.what = "9000", .chunk = reportEndingAt(9000, 1000), .log = {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        DeviceRegistry registry;
        registry.append({"0123456789AB", 0, 1});
        CallbackTable callbacks;
        ReportRouter router({registry, callbacks});
        const test::LogCapture log(0);
        const test::ExactBlock exact({reinterpret_cast<const std::uint8_t*>(c.chunk.data()), c.chunk.size()});
        EXPECT_EQ(router.route(asText(exact.span())), c.restarted);
        EXPECT_EQ(log.lines(), c.log);
    }
}

}  // namespace
}  // namespace kxorbeta_if
