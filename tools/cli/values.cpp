#include "cli/values.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "base/number.h"
#include "base/text.h"
#include "cli/failure.h"
#include "cli/text.h"

namespace velmora::cli {
namespace {

constexpr std::size_t kAddressDigits = 12;
constexpr std::size_t kMostHeadsets = 16;

bool sameText(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](unsigned char a, unsigned char b) { return std::toupper(a) == std::toupper(b); });
}

std::string foundText(std::span<const Found> found) {
    std::string text;
    for (const Found& headset : found) {
        text += (text.empty() ? "" : ", ") + headsetText(headset.address, headset.name);
    }
    return text.empty() ? "none" : text;
}

const Found& chooseOne(std::span<const Found> found, const std::string& wanted) {
    if (const auto address = parseAddress(wanted)) {
        for (const Found& headset : found) {
            if (sameText(headset.address, *address)) {
                return headset;
            }
        }
    }
    const Found* match = nullptr;
    for (const Found& headset : found) {
        if (printable(headset.name) == wanted) {
            if (match != nullptr) {
                throw Failure(kUsage, "several headsets are named " + wanted +
                                          "; give the address of the one that you want. Found: " + foundText(found));
            }
            match = &headset;
        }
    }
    if (match == nullptr) {
        throw Failure(kNotDone, "the scan did not find headset " + wanted +
                                    "; switch it on and bring it near. Found: " + foundText(found));
    }
    return *match;
}

}  // namespace

std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t most) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const std::string_view digits = text.substr(hexadecimal ? 2 : 0);
    return kxorbeta_if::wholeNumber<std::uint32_t>(digits, 0, most, hexadecimal ? 16 : 10);
}

std::optional<std::vector<std::uint8_t>> parsePayload(std::string_view text) {
    std::vector<std::uint8_t> bytes;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] == ' ' || text[at] == ':' || text[at] == ',') {
            ++at;
            continue;
        }
        std::uint8_t byte = 0;
        const char* const begin = text.data() + at;
        if (at + 1 >= text.size() || std::from_chars(begin, begin + 2, byte, 16).ptr != begin + 2) {
            return std::nullopt;
        }
        bytes.push_back(byte);
        at += 2;
    }
    return bytes;
}

std::optional<std::string> parseAddress(std::string_view text) {
    std::string digits(text);
    digits.erase(std::remove(digits.begin(), digits.end(), ':'), digits.end());
    const bool valid = digits.size() == kAddressDigits && kxorbeta_if::isHexText(digits);
    return valid ? std::optional(digits) : std::nullopt;
}

std::optional<double> parseSeconds(std::string_view text) {
    constexpr double kMost = 1e9;
    double factor = 1;
    if (!text.empty() && (text.back() == 's' || text.back() == 'm' || text.back() == 'h')) {
        factor = text.back() == 's' ? 1 : text.back() == 'm' ? 60 : 3600;
        text.remove_suffix(1);
    }
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    const bool valid = error == std::errc{} && stop == end && number > 0 && number * factor <= kMost;
    return valid ? std::optional(number * factor) : std::nullopt;
}

std::optional<Mark> parseMark(std::string_view text) {
    if (text.size() < 3 || text[1] != '=' || text[0] < 0x20 || text[0] > 0x7E) {
        return std::nullopt;
    }
    return Mark{text[0], std::string(text.substr(2))};
}

std::vector<Found> choose(std::span<const Found> found, const Selection& selection) {
    std::vector<Found> chosen;
    if (!selection.wanted.empty()) {
        for (const std::string& wanted : selection.wanted) {
            const Found& headset = chooseOne(found, wanted);
            const auto same = [&](const Found& other) { return sameText(other.address, headset.address); };
            if (std::none_of(chosen.begin(), chosen.end(), same)) {
                chosen.push_back(headset);
            }
        }
    } else if (found.empty()) {
        throw Failure(kNotDone,
                      "the scan found no headset; switch one on, bring it near, and see that it is not connected to "
                      "another dongle");
    } else if (found.size() > 1 && !selection.all) {
        throw Failure(
            kUsage, "there are several headsets; name those that you want, or give --all. Found: " + foundText(found));
    } else {
        chosen.assign(found.begin(), found.end());
    }
    if (chosen.size() > kMostHeadsets) {
        throw Failure(kUsage, "a dongle carries 16 headsets; name those that you want. Found: " + foundText(found));
    }
    return chosen;
}

std::string headsetTable(std::span<const Found> found) {
    std::string table = padded("ADDRESS", kAddressDigits) + "  OPTION  NAME\n";
    for (const Found& headset : found) {
        table += padded(printable(headset.address), kAddressDigits) + "  " +
                 rightPadded(std::to_string(headset.option), 6) + "  " + printable(headset.name) + "\n";
    }
    return table;
}

std::string headsetText(std::string_view address, std::string_view name) {
    const std::string shown = printable(name);
    if (address.empty()) {
        return shown.empty() ? "a headset without address" : shown;
    }
    return shown.empty() ? printable(address) : shown + " (" + printable(address) + ")";
}

}  // namespace velmora::cli
