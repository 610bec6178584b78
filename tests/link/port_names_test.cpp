#include "link/port_names.h"

#include <gtest/gtest.h>

namespace kxorbeta_if {
namespace {

TEST(PortNames, EveryNameMeansOneDeviceFile) {
    const struct {
        const char* name;
        const char* file;
    } cases[] = {
        {R"(\\.\COM1)", "/dev/ttyUSB0"},
        {R"(\\.\COM32)", "/dev/ttyUSB31"},
        {R"(\\.\COM33)", "/dev/ttyACM0"},
        {R"(\\.\COM64)", "/dev/ttyACM31"},
        {R"(\\.\COM65)", "/dev/ttyS0"},
        {R"(\\.\COM98)", "/dev/ttyS33"},
        {R"(\\.\\\.\COM8)", "/dev/ttyUSB7"},
        {"COM8", "/dev/ttyUSB7"},
        {R"(\\.\COM99)", "/dev/COM99"},
        {R"(\\.\COM0)", "/dev/COM0"},
        {R"(\\.\COM08)", "/dev/COM08"},
        {R"(\\.\COM8x)", "/dev/COM8x"},
        {R"(\\.\COM)", "/dev/COM"},
        {R"(\\.\COM99999999999999999999)", "/dev/COM99999999999999999999"},
        {R"(\\.\/dev/pts/3)", "/dev/pts/3"},
        {R"(\\.\ttyACM0)", "/dev/ttyACM0"},
        {R"(\\.\)", "/dev/"},
        {"", "/dev/"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(deviceFile(c.name, "/dev"), c.file) << c.name;
    }
}

}  // namespace
}  // namespace kxorbeta_if
