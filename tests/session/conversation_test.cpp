#include "session/conversation.h"

#include "support/testing.h"

namespace {

using velmora::Conversation;

/// Plays a conversation, a letter for each thing that happens, and returns the result after each as a letter.
///   S scan   C connect A and B   x give up what was asked   . what was not   > "Start scan"   f "Finish scan"
///   l a headset is found   a, b A or B connects   - A leaves   g "Group connection finish"   R restart   D drop A
///   0 all were dropped
std::string play(std::string_view what) {
    Conversation c;
    const std::vector<Conversation::Member> both{{"A00000000000"}, {"b00000000000"}};
    const protocol::ScanFields found{"A00000000000", "XAI", true};
    const std::map<char, std::function<void()>> happenings{
        {'S', [&] { c.beginScan(); }},
        {'C', [&] { c.beginConnect(both); }},
        {'D', [&] { c.beginDrop("A00000000000"); }},
        {'x', [&] { c.finish(true); }},
        {'.', [&] { c.finish(false); }},
        {'>', [&] { c.scanStarted(); }},
        {'f', [&] { c.scanEnded(); }},
        {'l', [&] { c.scanFound(found, 0); }},
        {'a', [&] { c.connected("a00000000000", 3, 4); }},
        {'b', [&] { c.connected("B00000000000", 5, 6); }},
        {'-', [&] { c.disconnected("A00000000000"); }},
        {'g', [&] { c.connectionEnded(); }},
        {'0', [&] { c.allDropped(); }},
        {'R', [&] { c.brokenOff(VELMORA_RESTARTED); }},
    };
    std::string results;
    for (const char letter : what) {
        happenings.at(letter)();
        const auto result = c.result();
        results += c.topic() == Conversation::Topic::kNone ? '_'
                   : !result                               ? 'w'
                   : *result == VELMORA_OK                 ? 'K'
                   : *result == VELMORA_RESTARTED          ? 'R'
                                                           : 'n';
    }
    return results;
}

TEST(Conversation, EndsWithWhatBelongsToIt) {
    const struct {
        const char *name, *what, *results;
    } cases[] = {
        {"a scan", "S>lf.", "wwwK_"},
        {"a scan without its first words", "Sf.", "wK_"},
        {"an end without a scan", "fSf", "_wK"},
        {"the end of a scan that was given up comes in between", "SxfSf", "w__wK"},
        {"it comes in the next scan", "SxSff", "w_wwK"},
        {"the dongle begins anew and owes one end only", "S>xS>f", "ww_wwK"},
        {"it comes before the dongle begins anew", "SxSf>f", "w_wwwK"},
        {"the scan was never asked for", "S.Sf", "w_wK"},
        {"a restart in a scan", "SR.Sf", "wR_wK"},
        {"a restart forgets what was owed", "SxRSf", "w__wK"},
        {"all connected", "Cabg", "wwwK"},
        {"one is not", "Cag", "wwn"},
        {"one connects and leaves again", "Cab-g", "wwwwn"},
        {"connections are no end", "Cab", "www"},
        {"the end of an attempt that was given up comes in the next", "CxCag", "w_www"},
        {"and then the next attempt's own", "CxCagg", "w_wwwn"},
        {"a dongle that ends both at once", "CxCabg", "w_wwwK"},
        {"an attempt that went with its headsets owes no end", "Cx0Cag", "w__wwn"},
        {"a restart while connecting", "CaRg", "wwRR"},
        {"a drop", "D-", "wK"},
        {"a restart in a drop, with which the headset leaves", "DR-", "wRR"},
        {"somebody else leaves", "Dg", "ww"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(play(c.what), c.results) << c.name;
    }
}

}  // namespace
