#include "velmora/headset_command.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace velmora::test {
namespace {

TEST(HeadsetCommand, ReadsNumbersPayloadsAndAddressesAndRefusesEverythingElse) {
    const std::map<std::string, std::uint32_t> numbers{{"0", 0}, {"255", 255}, {"0xFF", 255}, {"0Xa", 10}, {"010", 10}};
    for (const auto& [text, number] : numbers)
        EXPECT_EQ(parseNumber(text, 255), number) << text;
    for (const char* text : {"256", "0x100", "4294967297", "", "0x", "-1", "0x-1", "+1", " 1", "1 ", "ff"})
        EXPECT_FALSE(parseNumber(text, 255)) << text;

    EXPECT_EQ(parsePayload(""), std::vector<unsigned char>{});
    EXPECT_EQ(parsePayload("01:ff, a0 07B8"), (std::vector<unsigned char>{0x01, 0xFF, 0xA0, 0x07, 0xB8}));
    for (const char* text : {"01:ff, a0 7", "0", "0 1", "0x01", "0g", "-1"})
        EXPECT_FALSE(parsePayload(text)) << text;

    EXPECT_TRUE(isAddress("a1:B2:c3D4:e5:f6"));
    // The library ends the process over a text as long as the last.
    for (const char* text : {"", "A1B2C3D4E5F", "A1B2C3D4E5F60", "A1-B2C3D4E5F6", "A1B2C3D4E5F6::::::::::::::::::::"})
        EXPECT_FALSE(isAddress(text)) << text;
}

TEST(HeadsetCommand, KnowsWhatTheLibraryDoesNotSendAsItWasAsked) {
    const std::set<std::size_t> sent{0, 1, 2, 3, 4, 8, 10, 11, 12};
    for (std::size_t length = 0; length < 300; ++length)
        EXPECT_EQ(problemWithPayload(length).has_value(), !sent.contains(length)) << length;

    const std::map<std::uint32_t, std::uint32_t> targets{{0, 0}, {9, 9}, {10, 11}, {11, 11}, {12, 11}, {13, 1}};
    for (const auto& [target, index] : targets) {
        EXPECT_EQ(targetSent(target), index) << target;
        for (const std::size_t length : {3U, 4U, 12U})
            EXPECT_EQ(commandWarnings(target, length).size(), (target != index ? 1U : 0U) + (length != 3 ? 1U : 0U));
    }
}

}  // namespace
}  // namespace velmora::test
