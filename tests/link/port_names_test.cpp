#include "link/port_names.h"

#include "support/testing.h"

namespace kxorbeta_if {
namespace {

TEST(PortNames, EveryNameMeansOneDeviceFile) {
    const struct {
        std::string name, file;
    } cases[] = {{"COM1", "ttyUSB0"},
                 {"COM32", "ttyUSB31"},
                 {"COM33", "ttyACM0"},
                 {"COM64", "ttyACM31"},
                 {"COM65", "ttyS0"},
                 {"COM98", "ttyS33"},
                 {"COM99", "COM99"},
                 {"COM0", "COM0"},
                 {"COM08", "COM08"},
                 {"COM8x", "COM8x"},
                 {"COM", "COM"},
                 {R"(\\.\COM8)", "ttyUSB7"},
                 {"ttyACM0", "ttyACM0"},
                 {"", ""},
                 {"COM99999999999999999999", "COM99999999999999999999"}};
    for (const auto& c : cases) {
        EXPECT_EQ(deviceFile(c.name, "/dev"), "/dev/" + c.file) << c.name;
        EXPECT_EQ(deviceFile(R"(\\.\)" + c.name, "/dev"), "/dev/" + c.file) << c.name;
    }
    EXPECT_EQ(deviceFile(R"(\\.\/dev/pts/3)", "/dev"), "/dev/pts/3");
}

}  // namespace
}  // namespace kxorbeta_if
