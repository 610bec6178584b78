#include "cli/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <span>

namespace velmora::cli {

std::string printable(std::string_view text) {
    std::string shown(text);
    while (!shown.empty() && (shown.back() == '\r' || shown.back() == ' ')) {
        shown.pop_back();
    }
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c < 0x20 || c > 0x7E; }, '?');
    return shown;
}

std::string fixed(double value, int decimals) {
    std::array<char, 512> digits;
    const auto result =
        std::to_chars(digits.data(), digits.data() + digits.size(), value, std::chars_format::fixed, decimals);
    return {digits.data(), result.ptr};
}

std::string padded(std::string_view text, std::size_t width) {
    std::string result(text.substr(0, width));
    result.resize(width, ' ');
    return result;
}

std::string rightPadded(std::string_view text, std::size_t width) {
    return text.size() >= width ? std::string(text) : std::string(width - text.size(), ' ').append(text);
}

double lossPercent(std::uint64_t packets, std::uint64_t lost) {
    const auto sent = static_cast<double>(packets + lost);
    return lost == 0 ? 0 : 100 * static_cast<double>(lost) / sent;
}

std::string lossText(std::uint64_t packets, std::uint64_t lost, bool brief) {
    if (lost == 0) {
        return "0";
    }
    const double percent = lossPercent(packets, lost);
    const std::string share = percent < 0.1 ? "<0.1" : fixed(percent, percent < 10 ? 1 : 0);
    return (brief ? countText(lost) : std::to_string(lost)) + " (" + share + " %)";
}

namespace {

std::string scaled(std::uint64_t number, std::span<const char* const> units) {
    auto size = static_cast<double>(number);
    std::size_t unit = 0;
    // What would be rounded to 1000 is shown in the next unit.
    while (size >= 999.5 && unit + 1 < units.size()) {
        size /= 1000;
        ++unit;
    }
    return fixed(size, unit == 0 || size >= 99.95 ? 0 : 1) + units[unit];
}

}  // namespace

std::string sizeText(std::uint64_t bytes) {
    return scaled(bytes, std::array{" B", " kB", " MB", " GB", " TB", " PB"});
}

std::string countText(std::uint64_t count) {
    return scaled(count, std::array{"", "k", "M", "G"});
}

std::string timeText(double seconds) {
    const auto whole = static_cast<std::uint64_t>(std::max(seconds, 0.0));
    const auto two = [](std::uint64_t number) { return (number < 10 ? "0" : "") + std::to_string(number); };
    const std::string minutesAndSeconds = two(whole / 60 % 60) + ":" + two(whole % 60);
    if (whole >= 3600) {
        return std::to_string(whole / 3600) + ":" + minutesAndSeconds;
    }
    return std::to_string(whole / 60) + ":" + two(whole % 60);
}

std::string rateText(int channels, double slowest, double fastest) {
    if (channels == 0 || fastest <= 0) {
        return "...";
    }
    const std::string front = std::to_string(channels) + " x ";
    // A rate that is estimated differs a little from channel to channel.
    if (fastest - slowest <= 0.01 * fastest) {
        return front + fixed((slowest + fastest) / 2, 1);
    }
    return front + fixed(slowest, 1) + "-" + fixed(fastest, 1);
}

}  // namespace velmora::cli
