#include "record/svg_plot.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string_view>
#include <vector>

#include "record/text_file.h"
#include "record/track_writer.h"

namespace velmora::record {

namespace {

constexpr int kLeft = 118;  // of the rows, beside their labels
constexpr int kRight = 24;
constexpr int kTop = 62;
constexpr int kLaneHeight = 16;
constexpr std::size_t kLanes = 3;
constexpr double kCharacter = 6.3;  // width of one at 11 pixels, on the safe side

constexpr const char* kSignalColour = "#1d4f8c";
constexpr const char* kLostColour = "#d62728";
constexpr const char* kGapColour = "#6b7280";
constexpr const char* kEdgeColour = "#c3c8d0";
constexpr const char* kMarkColour = "#1b7f3b";
constexpr const char* kEventColour = "#b45309";

enum Bad : std::size_t { kLost, kGap, kEdge, kBadKinds };

/// What one pixel column shows of a channel.
struct Cell {
    int least = std::numeric_limits<int>::max();
    int most = std::numeric_limits<int>::min();
    int last = 0;
    std::array<std::uint32_t, kBadKinds> bad{};
    std::uint32_t samples = 0;

    bool hasSignal() const { return least <= most; }
};

struct BadRange {
    double from, to;  // seconds
    Bad kind;
};

struct Line {
    double at;  // seconds
    std::string text;
    bool mark;
};

struct View {
    double from, length;  // seconds
    std::size_t columns;

    double column(double seconds) const { return (seconds - from) / length * static_cast<double>(columns); }
};

bool startsWith(std::string_view text, std::string_view front) {
    return text.substr(0, front.size()) == front;
}

// Whether an annotation that names channels, as the recording does, means this one.
bool names(std::string_view list, std::string_view label) {
    if (list.empty() || list == " all channels") {
        return true;
    }
    list.remove_prefix(1);
    while (startsWith(list, label)) {
        const std::string_view rest = list.substr(label.size());
        if (rest.empty() || startsWith(rest, ", ")) {
            return true;
        }
        break;
    }
    const std::size_t comma = list.find(", ");
    return comma != std::string_view::npos && names(list.substr(comma + 1), label);
}

std::vector<BadRange> badRanges(const std::vector<EdfAnnotation>& annotations, const std::string& label) {
    constexpr std::array<std::string_view, kBadKinds> kNames{kBadLost, kBadGap, kBadEdge};
    std::vector<BadRange> result;
    for (const EdfAnnotation& annotation : annotations) {
        for (std::size_t kind = 0; kind < kBadKinds; ++kind) {
            if (startsWith(annotation.text, kNames[kind]) &&
                names(std::string_view(annotation.text).substr(kNames[kind].size()), label)) {
                result.push_back({annotation.onset, annotation.onset + annotation.duration, static_cast<Bad>(kind)});
            }
        }
    }
    return result;
}

std::vector<Line> linesOf(const std::vector<EdfAnnotation>& annotations, const View& view) {
    static constexpr std::array<std::string_view, 6> kEvents{"headset ", "dongle ",      "computer too slow",
                                                             "channel ", "no data for ", "Recording "};
    std::vector<Line> lines;
    for (const EdfAnnotation& annotation : annotations) {
        const std::string_view text = annotation.text;
        if (startsWith(text, "BAD_") || startsWith(text, "UTC offset") || startsWith(text, "battery ") ||
            annotation.onset < view.from || annotation.onset > view.from + view.length) {
            continue;
        }
        const bool event =
            std::any_of(kEvents.begin(), kEvents.end(), [&](auto front) { return startsWith(text, front); });
        lines.push_back({annotation.onset, annotation.text, !event});
    }
    return lines;
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
            case '<':
                result += "&lt;";
                break;
            case '>':
                result += "&gt;";
                break;
            case '&':
                result += "&amp;";
                break;
            case '"':
                result += "&quot;";
                break;
            default:
                result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
        }
    }
    return result;
}

std::string number(double value, int decimals = 1) {
    std::string text;
    appendFixed(text, value, decimals);
    if (decimals > 0) {
        text.erase(text.find_last_not_of('0') + 1);
        if (text.back() == '.') {
            text.pop_back();
        }
    }
    return text == "-0" ? "0" : text;
}

// With about four digits.
std::string amount(double value) {
    const double size = std::abs(value);
    return number(value, size >= 100 ? 0 : size >= 10 ? 1 : size >= 1 ? 2 : 4);
}

std::string clockText(double seconds, double length) {
    if (length <= 120) {
        return number(seconds, 3) + " s";
    }
    const auto whole = std::llround(seconds);
    std::array<char, 32> text;
    if (length >= 3600) {
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%lld:%02lld", whole / 60, whole % 60);
    }
    return text.data();
}

double tickStep(double length) {
    static constexpr std::array kSteps{0.001, 0.002, 0.005, 0.01, 0.02, 0.05, 0.1,  0.2,  0.5,  1.0,  2.0,
                                       5.0,   10.0,  15.0,  30.0, 60.0, 120., 300., 600., 900., 1800.};
    for (const double step : kSteps) {
        if (length / step <= 12) {
            return step;
        }
    }
    return 3600 * std::ceil(length / 3600 / 12);
}

/// Marks the parts of a row's samples that are bad while these are walked through from left to right.
class BadWalk {
  public:
    explicit BadWalk(std::vector<BadRange> ranges) : ranges_(std::move(ranges)) {
        std::sort(ranges_.begin(), ranges_.end(), [](const auto& a, const auto& b) { return a.from < b.from; });
    }
    const BadRange* at(double seconds) {
        while (next_ < ranges_.size() && ranges_[next_].to <= seconds) {
            ++next_;
        }
        return next_ < ranges_.size() && ranges_[next_].from <= seconds ? &ranges_[next_] : nullptr;
    }

  private:
    std::vector<BadRange> ranges_;
    std::size_t next_ = 0;
};

using Row = std::vector<Cell>;

std::vector<Row> readRows(EdfReader& file, const View& view, const std::vector<EdfAnnotation>& annotations) {
    const auto& signals = file.signals();
    std::vector<Row> rows(signals.size(), Row(view.columns));
    std::vector<BadWalk> walks;
    walks.reserve(signals.size());
    for (const EdfSignal& signal : signals) {
        walks.emplace_back(badRanges(annotations, signal.label));
    }
    const auto first = static_cast<std::uint64_t>(std::floor(view.from / file.recordSeconds()));
    for (std::uint64_t record = first; record < file.records(); ++record) {
        const double start = static_cast<double>(record) * file.recordSeconds();
        if (start >= view.from + view.length) {
            break;
        }
        auto samples = file.record(record);
        for (std::size_t s = 0; s < signals.size(); ++s) {
            const std::size_t count = signals[s].samplesInRecord;
            for (std::size_t i = 0; i < count; ++i) {
                // In the middle of the sample, so that rounded ends of annotations do not matter.
                const double at =
                    start + (static_cast<double>(i) + 0.5) * file.recordSeconds() / static_cast<double>(count);
                const double column = view.column(at);
                if (column < 0 || column >= static_cast<double>(view.columns)) {
                    continue;
                }
                Cell& cell = rows[s][static_cast<std::size_t>(column)];
                ++cell.samples;
                if (const BadRange* bad = walks[s].at(at)) {
                    ++cell.bad[bad->kind];
                    continue;
                }
                cell.last = samples[i];
                cell.least = std::min<int>(cell.least, samples[i]);
                cell.most = std::max<int>(cell.most, samples[i]);
            }
            samples = samples.subspan(count);
        }
    }
    return rows;
}

class Picture {
  public:
    Picture(int width, int height) {
        svg_ = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(width) + "\" height=\"" +
               std::to_string(height) + "\" viewBox=\"0 0 " + std::to_string(width) + ' ' + std::to_string(height) +
               "\" font-family=\"Helvetica, Arial, 'DejaVu Sans', sans-serif\" font-size=\"11\">\n";
        rectangle(0, 0, width, height, "#ffffff", 1);
    }
    void rectangle(double x, double y, double width, double height, const char* colour, double opacity) {
        svg_ += "<rect x=\"" + number(x) + "\" y=\"" + number(y) + "\" width=\"" + number(width) + "\" height=\"" +
                number(height) + "\" fill=\"" + colour + '"';
        if (opacity < 1) {
            svg_ += " fill-opacity=\"" + number(opacity, 2) + '"';
        }
        svg_ += "/>\n";
    }
    void line(double x1, double y1, double x2, double y2, const char* colour, const char* dashes = nullptr) {
        svg_ += "<path d=\"M" + number(x1) + ' ' + number(y1) + 'L' + number(x2) + ' ' + number(y2) + "\" stroke=\"" +
                colour + '"';
        if (dashes != nullptr) {
            svg_ += std::string(" stroke-dasharray=\"") + dashes + '"';
        }
        svg_ += "/>\n";
    }
    void text(double x, double y, std::string_view words, const char* colour, const char* more = "") {
        svg_ += "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" fill=\"" + colour + "\" " + more + '>' +
                escaped(words) + "</text>\n";
    }
    void strokes(const std::string& path, const char* colour) {
        svg_ += "<path d=\"" + path + "\" stroke=\"" + colour + "\" fill=\"none\" stroke-linecap=\"square\"/>\n";
    }
    std::string finish() { return svg_ + "</svg>\n"; }

  private:
    std::string svg_;
};

// What is lost in a column, in a few steps, so that equal neighbours make one rectangle.
double opacityOf(std::uint32_t bad, std::uint32_t samples) {
    const double share = samples == 0 ? 0 : static_cast<double>(bad) / samples;
    return share <= 0 ? 0 : share < 0.1 ? 0.25 : share < 0.35 ? 0.35 : share < 0.8 ? 0.45 : 0.6;
}

void drawBad(Picture& picture, const Row& row, double y, double height) {
    static constexpr std::array<const char*, kBadKinds> kColours{kLostColour, kGapColour, kEdgeColour};
    for (std::size_t kind = 0; kind < kBadKinds; ++kind) {
        double before = 0;
        std::size_t from = 0;
        for (std::size_t at = 0; at <= row.size(); ++at) {
            double opacity = 0;
            if (at < row.size()) {  // between the samples of a slow signal as at the last one
                opacity = row[at].samples == 0 ? before : opacityOf(row[at].bad[kind], row[at].samples);
            }
            if (opacity == before) {
                continue;
            }
            if (before > 0) {
                picture.rectangle(kLeft + static_cast<double>(from), y, static_cast<double>(at - from), height,
                                  kColours[kind], before);
            }
            before = opacity;
            from = at;
        }
    }
}

void drawSignal(Picture& picture, const Row& row, int least, int most, double y, double height) {
    const double scale = height / std::max(1, most - least);
    const auto place = [&](int value) { return number(y + (most - value) * scale); };
    std::string path;
    const Cell* before = nullptr;
    for (std::size_t column = 0; column < row.size(); ++column) {
        const Cell& cell = row[column];
        if (!cell.hasSignal()) {
            // Columns between two samples of a slow signal are crossed by a line; what is bad is not.
            if (cell.samples > 0) {
                before = nullptr;
            }
            continue;
        }
        const std::string x = number(kLeft + static_cast<double>(column) + 0.5);
        if (before == nullptr) {
            path += 'M' + x + ' ' + place(cell.least);
        } else {
            path += 'L' + x + ' ' + place(std::clamp(before->last, cell.least, cell.most));
        }
        if (cell.least != cell.most) {
            path += 'V' + place(cell.least) + 'V' + place(cell.most) + 'V' + place(cell.last);
        }
        before = &cell;
    }
    if (!path.empty()) {
        picture.strokes(path, kSignalColour);
    }
}

void drawLines(Picture& picture, const std::vector<Line>& lines, const View& view, double top, double bottom) {
    std::array<double, kLanes> free{};
    for (const Line& line : lines) {
        const double x = kLeft + view.column(line.at);
        const char* colour = line.mark ? kMarkColour : kEventColour;
        std::string words = line.text.size() > 44 ? line.text.substr(0, 42) + "..." : line.text;
        const double width = kCharacter * static_cast<double>(words.size()) + 8;
        const double right = kLeft + static_cast<double>(view.columns);
        // At the right border the words stand in front of their line.
        const double start = x + width > right ? x - width : x;
        const auto lane = std::find_if(free.begin(), free.end(), [&](double end) { return end <= start; });
        double from = top;
        if (lane != free.end()) {
            const auto place = static_cast<double>(lane - free.begin());
            const double y = top - 5 - kLaneHeight * (kLanes - 1 - place);
            picture.text(start + (start < x ? width - 4 : 4), y, words, colour, start < x ? "text-anchor=\"end\"" : "");
            *lane = start + width;
            from = y - 9;
        }
        picture.line(x, from, x, bottom, colour, line.mark ? nullptr : "4 3");
    }
}

void drawAxis(Picture& picture, const View& view, double top, double bottom) {
    const double step = tickStep(view.length);
    const auto first = std::llround(std::ceil(view.from / step - 1e-9));
    const auto last = std::llround(std::floor((view.from + view.length) / step + 1e-9));
    for (auto tick = first; tick <= last; ++tick) {
        const double at = static_cast<double>(tick) * step;
        const double x = kLeft + view.column(at);
        picture.line(x, top, x, bottom + 5, "#dfe3e8");
        picture.text(x, bottom + 18, clockText(at, view.from + view.length), "#374151", "text-anchor=\"middle\"");
    }
    picture.line(kLeft, bottom, kLeft + static_cast<double>(view.columns), bottom, "#6b7280");
}

}  // namespace

std::string plotSvg(EdfReader& file, const std::string& title, const PlotOptions& options) {
    if (file.signals().empty() || file.records() == 0) {
        throw EdfError("the file has no samples");
    }
    View view{options.from, options.length > 0 ? options.length : file.seconds() - options.from,
              static_cast<std::size_t>(std::max(options.width, 400) - kLeft - kRight)};
    if (!(view.from >= 0) || view.from >= file.seconds() || !std::isfinite(view.length)) {
        throw EdfError("the file has " + number(file.seconds(), 1) + " s; the picture would begin behind them");
    }
    view.length = std::min(view.length, file.seconds() - view.from);

    const auto& signals = file.signals();
    const std::vector<EdfAnnotation> annotations = file.annotations();
    const std::vector<Row> rows = readRows(file, view, annotations);
    const std::vector<Line> lines = linesOf(annotations, view);
    std::array<std::uint64_t, kBadKinds> bad{};
    std::uint64_t samples = 0;
    for (const Row& row : rows) {
        for (const Cell& cell : row) {
            samples += cell.samples;
            for (std::size_t kind = 0; kind < kBadKinds; ++kind) {
                bad[kind] += cell.bad[kind];
            }
        }
    }

    const double height = signals.size() <= 4 ? 110 : signals.size() <= 8 ? 74 : 50;
    const double top = kTop + (lines.empty() ? 0 : kLaneHeight * static_cast<double>(kLanes));
    const double bottom = top + height * static_cast<double>(signals.size());
    const double right = kLeft + static_cast<double>(view.columns);
    Picture picture(static_cast<int>(view.columns) + kLeft + kRight, static_cast<int>(bottom) + 62);

    picture.text(16, 26, title, "#111827", "font-size=\"17\" font-weight=\"bold\"");
    std::string start = file.startDate() + ' ' + file.startTime();
    if (file.startTime().size() == 8) {
        start = file.startDate() + ' ' + file.startTime().substr(0, 2) + ':' + file.startTime().substr(3, 2) + ':' +
                file.startTime().substr(6, 2);
    }
    const std::uint64_t expected = samples - bad[kEdge] - bad[kGap];
    picture.text(
        16, 46,
        "begins " + start + "  \xC2\xB7  " + clockText(file.seconds(), file.seconds()) + "  \xC2\xB7  " +
            std::to_string(signals.size()) + (signals.size() == 1 ? " channel" : " channels") + " at " +
            number(static_cast<double>(signals[0].samplesInRecord) / file.recordSeconds(), 2) + " Hz  \xC2\xB7  lost " +
            number(expected == 0 ? 0 : 100 * static_cast<double>(bad[kLost]) / static_cast<double>(expected), 2) + " %",
        "#4b5563", "font-size=\"12\"");

    drawAxis(picture, view, top, bottom);
    for (std::size_t s = 0; s < rows.size(); ++s) {
        const double y = top + height * static_cast<double>(s);
        int least = std::numeric_limits<int>::max();
        int most = std::numeric_limits<int>::min();
        for (const Cell& cell : rows[s]) {
            least = std::min(least, cell.least);
            most = std::max(most, cell.most);
        }
        picture.line(16, y, right, y, "#e5e7eb");
        picture.text(16, y + height / 2 - 2, signals[s].label, "#111827", "font-size=\"12\" font-weight=\"bold\"");
        if (least <= most) {
            drawSignal(picture, rows[s], least, most, y + 5, height - 10);
            picture.text(16, y + height / 2 + 12,
                         amount(signals[s].physical(least)) + " \xE2\x80\xA6 " + amount(signals[s].physical(most)) +
                             (signals[s].unit.empty() ? "" : ' ' + signals[s].unit),
                         "#6b7280", "font-size=\"10\"");
        } else {
            picture.text(16, y + height / 2 + 12, "no data", "#6b7280", "font-size=\"10\"");
        }
        // Over the samples: in an hour these fill the row, and a loss has few pixels.
        drawBad(picture, rows[s], y + 1, height - 2);
    }
    drawLines(picture, lines, view, top, bottom);

    // Only what there is is explained.
    double x = kLeft;
    const double y = bottom + 44;
    const auto explain = [&](bool there, std::string_view words, auto&& draw) {
        if (there) {
            draw();
            picture.text(x + 24, y, words, "#374151");
            x += 24 + kCharacter * static_cast<double>(words.size()) + 6;
        }
    };
    const auto box = [&](const char* colour) {
        return [&, colour] { picture.rectangle(x, y - 10, 18, 12, colour, 0.6); };
    };
    const auto isMark = [](const Line& line) { return line.mark; };
    explain(true, "samples", [&] { picture.line(x, y - 4, x + 18, y - 4, kSignalColour); });
    explain(bad[kLost] > 0, "lost (paler: a part of them)", box(kLostColour));
    explain(bad[kGap] > 0, "headset not connected", box(kGapColour));
    explain(bad[kEdge] > 0, "outside the recording", box(kEdgeColour));
    explain(std::any_of(lines.begin(), lines.end(), isMark), "mark",
            [&] { picture.line(x + 9, y - 11, x + 9, y + 2, kMarkColour); });
    explain(!std::all_of(lines.begin(), lines.end(), isMark), "event",
            [&] { picture.line(x + 9, y - 11, x + 9, y + 2, kEventColour, "4 3"); });
    return picture.finish();
}

}  // namespace velmora::record
