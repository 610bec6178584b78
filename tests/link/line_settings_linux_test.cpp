#include "link/line_settings_linux.h"

#include "support/testing.h"

// A pseudo-terminal takes any settings and silently ignores some, so what is handed to the kernel is looked at here.

namespace kxorbeta_if {
namespace {

using Stop = LineSettings::Stop;
using Parity = LineSettings::Parity;

constexpr tcflag_t kOurs = CBAUD | CIBAUD | CSIZE | CSTOPB | PARENB | PARODD | CMSPAR;

TEST(LineSettingsLinux, EachSettingBecomesItsFlags) {
    const struct {
        LineSettings settings;
        tcflag_t flags;
    } cases[] = {{{2000000, 8, Stop::kOne, Parity::kNone}, CS8},
                 {{110, 7, Stop::kTwo, Parity::kEven}, CS7 | CSTOPB | PARENB},
                 {{9600, 6, Stop::kOne, Parity::kOdd}, CS6 | PARENB | PARODD},
                 {{128000, 5, Stop::kOneAndHalf, Parity::kMark}, CS5 | CSTOPB | PARENB | PARODD | CMSPAR},
                 {{14400, 5, Stop::kOne, Parity::kSpace}, CS5 | PARENB | CMSPAR}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings.baud);
        termios2 before{};
        before.c_cflag = 0xFFFFFFFF & ~static_cast<tcflag_t>(CREAD);  // what was set must not shine through
        before.c_iflag = IXON | IGNPAR | IUTF8;
        const auto line = line_settings_linux::withSettings(before, c.settings);
        ASSERT_TRUE(line);
        EXPECT_EQ(line->c_cflag & kOurs & ~static_cast<tcflag_t>(CBAUD | CIBAUD), c.flags);
        EXPECT_EQ(line->c_cflag & CBAUD, static_cast<tcflag_t>(BOTHER));
        EXPECT_TRUE(line->c_ispeed == c.settings.baud && line->c_ospeed == c.settings.baud);
        EXPECT_EQ(line->c_cflag & ~(kOurs | CREAD), before.c_cflag & ~(kOurs | CREAD)) << "CRTSCTS and the rest stay";
        EXPECT_NE(line->c_cflag & CREAD, 0u);
        EXPECT_EQ(line->c_iflag, static_cast<tcflag_t>(IGNPAR | IUTF8));
    }
    // What no terminal can do is refused.
    EXPECT_FALSE(line_settings_linux::withSettings({}, {2000000, 16, Stop::kOne, Parity::kNone}));
    EXPECT_FALSE(line_settings_linux::withSettings({}, {2000000, 8, Stop::kOneAndHalf, Parity::kNone}));
}

}  // namespace
}  // namespace kxorbeta_if
