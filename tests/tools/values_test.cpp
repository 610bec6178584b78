#include "cli/values.h"

#include <cstring>
#include <sstream>

#include "cli/failure.h"
#include "cli/json.h"
#include "cli/live_display.h"
#include "cli/text.h"
#include "support/testing.h"

namespace velmora::cli {
namespace {

TEST(Values, ReadsWhatIsMeantAndRefusesEverythingElse) {
    const std::map<std::string, std::uint32_t> numbers{{"0", 0}, {"255", 255}, {"0xFF", 255}, {"0Xa", 10}, {"010", 10}};
    for (const auto& [text, number] : numbers) {
        EXPECT_EQ(parseNumber(text, 255), number) << text;
    }
    for (const char* text : {"256", "0x100", "4294967297", "", "0x", "-1", "0x-1", "+1", " 1", "1 ", "ff"}) {
        EXPECT_FALSE(parseNumber(text, 255)) << text;
    }

    EXPECT_EQ(parsePayload(""), std::vector<std::uint8_t>{});
    EXPECT_EQ(parsePayload("01:ff, a0 07B8"), (std::vector<std::uint8_t>{0x01, 0xFF, 0xA0, 0x07, 0xB8}));
    for (const char* text : {"01:ff, a0 7", "0", "0 1", "0x01", "0g", "-1"}) {
        EXPECT_FALSE(parsePayload(text)) << text;
    }

    EXPECT_EQ(parseAddress("a1:B2:c3D4:e5:f6"), "a1B2c3D4e5f6");
    for (const char* text : {"", "A1B2C3D4E5F", "A1B2C3D4E5F60", "A1-B2C3D4E5F6", "XAI-01"}) {
        EXPECT_FALSE(parseAddress(text)) << text;
    }

    const std::map<std::string, double> times{{"10", 10}, {"0.5s", 0.5}, {"90s", 90}, {"5m", 300}, {"1h", 3600}};
    for (const auto& [text, seconds] : times) {
        EXPECT_EQ(parseSeconds(text), seconds) << text;
    }
    for (const char* text : {"", "s", "0", "-1", "soon", "1e3", "5 m", "inf", "nan", "9999999999"}) {
        EXPECT_FALSE(parseSeconds(text)) << text;
    }

    const auto mark = parseMark("b=blink = eyes");
    ASSERT_TRUE(mark);
    EXPECT_EQ(mark->key, 'b');
    EXPECT_EQ(mark->text, "blink = eyes");
    for (const char* text : {"", "b", "b=", "blink", "\x01=x"}) {
        EXPECT_FALSE(parseMark(text)) << text;
    }
}

Found headset(const char* address, const char* name) {
    Found found{};
    std::strncpy(found.address, address, sizeof found.address - 1);
    std::strncpy(found.name, name, sizeof found.name - 1);
    return found;
}

TEST(Values, ChoosesHeadsetsAndSaysWhatIsThereWhenItCannot) {
    const std::vector<Found> found{headset("A1B2C3D4E501", "XAI-01"), headset("a1b2c3d4e502", "twin"),
                                   headset("A1B2C3D4E503", "twin\r")};
    struct Case {
        const char* what;
        std::size_t present;
        Selection selection;
        std::string addresses;  // chosen, or
        int code = 0;
        const char* part = "";
    };
    const std::vector<Case> cases{
        {"by address in other letters, and by name", 3, {{"A1:B2:C3:D4:E5:02", "XAI-01"}}, "a1b2c3d4e502A1B2C3D4E501"},
        {"the same twice", 3, {{"XAI-01", "a1b2c3d4e501"}}, "A1B2C3D4E501"},
        {"the only one", 1, {}, "A1B2C3D4E501"},
        {"all", 2, {{}, true}, "A1B2C3D4E501a1b2c3d4e502"},
        {"none there", 0, {{}, true}, "", kNotDone, "no headset"},
        {"too many to guess", 2, {}, "", kUsage, "twin (a1b2c3d4e502)"},
        {"a name of two", 3, {{"twin"}}, "", kUsage, "several headsets are named twin"},
        {"missing", 3, {{"XAI-01", "XAI-09"}}, "", kNotDone, "did not find headset XAI-09"},
    };
    for (const Case& one : cases) {
        std::string addresses;
        try {
            for (const Found& chosen : choose(std::span(found).first(one.present), one.selection)) {
                addresses += chosen.address;
            }
            EXPECT_EQ(one.code, 0) << one.what;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), one.code) << one.what;
            EXPECT_NE(std::string(failure.what()).find(one.part), std::string::npos) << failure.what();
        }
        EXPECT_EQ(addresses, one.addresses) << one.what;
    }
    const std::vector<Found> crowd(17, found[0]);
    EXPECT_THROW(choose(crowd, {{}, true}), Failure);
}

TEST(Text, IsWhatPeopleRead) {
    // What came from the air must not reach the terminal as something to obey.
    EXPECT_EQ(printable("AI\x1b[2J\x7f\xff \r"), "AI?[2J??");
    EXPECT_EQ(headsetText("A1B2C3D4E501", ""), "A1B2C3D4E501");
    EXPECT_EQ(headsetText("", ""), "a headset without address");

    EXPECT_EQ(lossText(100, 0), "0");
    EXPECT_EQ(lossText(1, 1), "1 (50 %)");
    EXPECT_EQ(lossText(97, 3), "3 (3.0 %)");
    EXPECT_EQ(lossText(99'999, 1), "1 (<0.1 %)");
    EXPECT_EQ(lossPercent(0, 5), 100);

    const std::map<std::uint64_t, std::string> sizes{{0, "0 B"},          {999, "999 B"},     {1000, "1.0 kB"},
                                                     {99'940, "99.9 kB"}, {99'951, "100 kB"}, {999'600, "1.0 MB"}};
    for (const auto& [bytes, text] : sizes) {
        EXPECT_EQ(sizeText(bytes), text);
    }
    EXPECT_EQ(timeText(59.9) + " " + timeText(61) + " " + timeText(36'000 + 62), "0:59 1:01 10:01:02");

    EXPECT_EQ(rateText(8, 499.9, 500.1), "8 x 500.0");
    EXPECT_EQ(rateText(3, 250, 500), "3 x 250.0-500.0");
    EXPECT_EQ(rateText(8, 0, 0), "...");
}

TEST(Json, EscapesAndSeparates) {
    Json json;
    json.beginObject().field("text", "a\"b\\c\n\xC3\xA9").beginArray("list");
    json.beginObject().field("n", -1).field("half", 0.5, 2).endObject();
    json.beginObject().field("yes", true).field("none", 1.0 / 0.0, 1).null("empty").endObject();
    EXPECT_EQ(json.endArray().endObject().text(),
              "{\"text\": \"a\\\"b\\\\c\\u000a\xC3\xA9\", \"list\": [{\"n\": -1, \"half\": 0.50}, "
              "{\"yes\": true, \"none\": null, \"empty\": null}]}");
}

TEST(LiveDisplay, RedrawsInPlaceWithoutWrappingOrScrollingAndKeepsNotesAbove) {
    std::ostringstream out;
    LiveDisplay display(out, [&](int count) { out << "<" << count << ">"; });
    display.show({"first line too long", "exactly 10"}, 10, 24);
    display.note("note");
    display.show({"third", "fourth", "fifth"}, 10, 3);
    display.show({}, 10, 24);
    display.show({"last"}, 10, 24);
    const std::string shown = "first lin\nexactly 1\n";
    EXPECT_EQ(out.str(), shown + "<2>note\n" + shown + "<2>third\nfourth\n<2>last\n");
}

}  // namespace
}  // namespace velmora::cli
