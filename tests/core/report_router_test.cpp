#include "core/report_router.h"
#include "base/text.h"
#include "support/exact_block.h"
#include "support/log_capture.h"
#include "support/testing.h"

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
        {"nothing", "Service conn, AT+LIS, Client disc, Boot", {}},
        {"whole chunk is the text", "Bootup", {}, true},
        {"restart in the middle", "x Bootup\n", {}, true},
        {"the text ends the chunk", "x Bootup", {}},
        {"left", left + "\n", leftLog},
        {"list", list + "\n", listLog},
        {"joined", kReport, joinedLog},
        {"all, in an order of their own", kReport + "\n" + list + "\n" + left + ",", all},
        {"reports before a restart", kReport + "\nBootup\n", joinedLog, true},
        {"bytes between characters that are no text",
         "Service connected. \r\x7F\x1F"
         "A1B2\xFF\x80"
         "C3D4E5F6,1\x01"
         "2\n",
         joinedLog},
        {"2998", reportEndingAt(2998, 0), joinedLog},
        {"2999", reportEndingAt(2999, 0), joinedLog},
        {"2999 and one", reportEndingAt(2999, 1), joinedLog},
        {"2999 and many", reportEndingAt(2999, 7000), joinedLog},
        {"3000", reportEndingAt(3000, 0), cutLog},
        {"3000 and many", reportEndingAt(3000, 7000), cutLog},
        {"3040", reportEndingAt(3040, 0), {}},
        {"9000", reportEndingAt(9000, 1000), {}},
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
