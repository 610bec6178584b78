#include "record/json_text.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace velmora::record {

std::string jsonText(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
            result += c;
        } else if (static_cast<unsigned char>(c) < ' ') {
            std::array<char, 8> code;
            std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(c));
            result += code.data();
        } else {
            result += c;
        }
    }
    return result + '"';
}

std::string jsonNumber(double value) {
    if (!std::isfinite(value)) {
        return "null";
    }
    std::array<char, 32> digits;
    return {digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr};
}

std::string jsonTime(std::int64_t utc) {
    const std::chrono::sys_time<std::chrono::microseconds> moment{std::chrono::microseconds(utc / 1000)};
    const auto day = std::chrono::floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(moment - day);
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "\"%04d-%02u-%02uT%02d:%02d:%02d.%06dZ\"", int(date.year()),
                  unsigned(date.month()), unsigned(date.day()), static_cast<int>(time.hours().count()),
                  static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
                  static_cast<int>(time.subseconds().count()));
    return text.data();
}

}  // namespace velmora::record
