#include "cli/doctor.h"

#include "support/testing.h"

namespace velmora::cli {
namespace {

using kxorbeta_if::PortInfo;
using Result = Finding::Result;

PortInfo port() {
    PortInfo port;
    port.name = "ttyUSB3";
    port.path = "/dev/ttyUSB3";
    port.description = "Maker Dongle";
    port.usb = kxorbeta_if::UsbId{0x1234, 0x5678};
    port.access = PortInfo::Access::kAllowed;
    return port;
}

TEST(Doctor, NamesTheCommandThatMendsEachFinding) {
    PortInfo denied = port(), locked = port(), held = port(), slow = port(), fast = port();
    denied.access = locked.access = PortInfo::Access::kDenied;
    denied.accessGroup = "dialout";
    held.holders = {{41, "minicom"}, {7, ""}};
    slow.latencyTimerMs = 16;
    fast.latencyTimerMs = 1;
    const std::vector<std::string> grabbers{"bash", "brltty", "ModemManager"};
    const std::vector<std::string> none{"bash", "ModemManagerX"};
    const struct {
        Finding finding;
        Result result;
        const char *text, *mend;
    } cases[] = {
        {examineAccess(port()), Result::kGood, "/dev/ttyUSB3 (Maker Dongle) may be opened", ""},
        {examineAccess(denied), Result::kProblem, "group dialout", "sudo usermod -aG dialout \"$USER\""},
        {examineAccess(locked), Result::kProblem, "may not open", "sudo chmod a+rw /dev/ttyUSB3"},
        {examineAccess(held), Result::kProblem, "minicom (process 41), a program (process 7)", "kill 41 7"},
        {examineLatency(port()), Result::kNote, "tells no latency timer", ""},
        {examineLatency(slow), Result::kProblem, "16 ms",
         "echo 1 | sudo tee /sys/bus/usb-serial/devices/ttyUSB3/latency_timer"},
        {examineLatency(fast), Result::kGood, "1 ms", ""},
        {examineGrabbers(grabbers), Result::kProblem, "ModemManager and brltty",
         "sudo systemctl mask --now ModemManager brltty"},
        {examineGrabbers(none), Result::kGood, "no program", ""},
        {examineData({0, 0, 0, 0}), Result::kProblem, "no data", "off and on"},
        {examineData({98, 2, 0, 0}), Result::kProblem, "lost 2 (2.0 %)", "nearer"},
        {examineData({98, 0, 2, 0}), Result::kProblem, "keep up", "end other programs"},
        {examineData({98, 0, 0, 1}), Result::kProblem, "damaged pieces 1", "another USB port"},
        {examineData({98, 0, 0, 0}), Result::kGood, "98 packets", ""},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(one.finding.result, one.result) << one.finding.text;
        EXPECT_NE(one.finding.text.find(one.text), std::string::npos) << one.finding.text;
        EXPECT_EQ(one.finding.mend.empty(), *one.mend == '\0') << one.finding.mend;
        EXPECT_NE(one.finding.mend.find(one.mend), std::string::npos) << one.finding.mend;
    }
}

TEST(Doctor, WrapsTextsButNoCommand) {
    const Finding finding{Result::kProblem, "port", "one two three four", "a command that is longer than the line"};
    EXPECT_EQ(findingText(finding, 29),
              "MEND  port      one two three\n"
              "                four\n"
              "                a command that is longer than the line\n");
    EXPECT_EQ(findingsJson(std::vector{finding}),
              "{\"findings\": [{\"check\": \"port\", \"result\": \"problem\", \"text\": \"one two three four\", "
              "\"mend\": \"a command that is longer than the line\"}]}");
}

}  // namespace
}  // namespace velmora::cli
