#include <cstdio>
#include <sstream>

#include "record/recording.h"
#include "record/simulated_headset.h"
#include "record/svg_plot.h"
#include "support/testing.h"
#include "support/working_folder.h"

namespace {

using namespace velmora::record;

/// A file of 20 s of four channels; a packet of channel ch2 is lost at 10.08 s, all channels are from 15.12 to 16.128
/// s.
class Plot : public testing::Test {
  protected:
    Plot() {
        test::SimulatedHeadset headset{.channels = 4, .rate = 500, .seconds = 20.5, .jitter = 0};
        headset.lost = [](int channel, std::int64_t sample) {
            return (channel == 2 && sample == 45 * 112) || (sample >= 7560 && sample < 8064);
        };
        Options options;
        options.target.base = "take";
        options.labels = {"A<1>", "B"};
        Recording recording(options, {{0, "A1B2C3D4E5F6", "x"}}, {0, 1'709'677'800'000'000'000, 0}, systemFiles(), "1",
                            "0", [](const std::string&) {});
        bool left = false;
        for (const velmora_record& record : headset.records()) {
            if (record.sample >= 8064 && !std::exchange(left, true)) {
                const auto event = test::eventRecord(VELMORA_EVENT_DISCONNECTED, 0, record.time - 500'000'000);
                recording.take({&event, 1});
            }
            recording.take({&record, 1});
        }
        recording.mark(headset.start + 5'000'000'000, "eyes & \"ears\"");
        recording.finish();
    }

    const test::WorkingFolder here_;
};

/// Left and right border of the rectangles of a colour.
std::vector<std::pair<double, double>> rectangles(const std::string& svg, const std::string& colour) {
    std::vector<std::pair<double, double>> result;
    std::istringstream lines(svg);
    for (std::string line; std::getline(lines, line);) {
        double x = 0, y = 0, width = 0;
        if (std::sscanf(line.c_str(), "<rect x=\"%lf\" y=\"%lf\" width=\"%lf\"", &x, &y, &width) == 3 &&
            line.find("fill=\"" + colour + "\" fill-opacity=\"0.6\"") != std::string::npos)
            result.emplace_back(x, x + width);
    }
    return result;
}

TEST_F(Plot, ShowsLossesGapsAndMarksWhereTheyAre) {
    EdfReader file("take.edf");
    PlotOptions options;
    options.width = 1142;  // 1,000 pixels for 20 s
    options.length = 20;
    const std::string svg = plotSvg(file, "take & co", options);
    const auto lost = rectangles(svg, "#d62728");
    ASSERT_EQ(lost.size(), 2U);  // the other one explains the colour
    EXPECT_NEAR(lost[0].first, 118 + 10.08 * 50, 1);
    EXPECT_NEAR(lost[0].second, 118 + 10.304 * 50, 1.5);
    const auto gaps = rectangles(svg, "#6b7280");
    ASSERT_EQ(gaps.size(), 5U);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(gaps[i].first, 118 + 15.232 * 50, 1.5);
        EXPECT_NEAR(gaps[i].second, 118 + 16.128 * 50, 1.5);
    }
    for (const char* part : {"A&lt;1&gt;", ">ch3<", "eyes &amp; &quot;ears&quot;", "take &amp; co", "500 Hz", "M368 ",
                             "headset disconnected", "headset not connected"})
        EXPECT_NE(svg.find(part), std::string::npos) << part;
    // No filled sample counts for the range that a row shows.
    EXPECT_EQ(svg.find("-32768"), std::string::npos);
}

TEST_F(Plot, StretchesOfAFile) {
    EdfReader file("take.edf");
    PlotOptions options;
    options.from = 4.9;
    options.length = 0.02;  // ten samples, many pixels
    const std::string svg = plotSvg(file, "", options);
    EXPECT_NE(svg.find("4.91 s"), std::string::npos);
    EXPECT_EQ(svg.find("eyes"), std::string::npos);
    options.from = 21;
    EXPECT_THROW(plotSvg(file, "", options), EdfError);
    options.from = -1;
    EXPECT_THROW(plotSvg(file, "", options), EdfError);
}

}  // namespace
