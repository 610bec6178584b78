#include <algorithm>
#include <functional>
#include <map>
#include <string_view>

#include "base/number.h"
#include "dongle/program_options.h"

namespace dongle {

namespace {

using kxorbeta_if::wholeNumber;

/// Sets one value of a headset; false when the text is no such value.
using Setter = std::function<bool(HeadsetSettings&, std::string_view)>;

template <typename Member>
Setter number(Member HeadsetSettings::*member, int least, int most) {
    return [=](HeadsetSettings& headset, std::string_view text) {
        const auto value = wholeNumber(text, least, most);
        if (value) {
            headset.*member = static_cast<Member>(*value);
        }
        return value.has_value();
    };
}

Setter milliseconds(Time HeadsetSettings::*member) {
    return [=](HeadsetSettings& headset, std::string_view text) {
        const auto value = wholeNumber(text, 0, 2'000'000'000);
        if (value) {
            headset.*member = std::chrono::milliseconds(*value);
        }
        return value.has_value();
    };
}

Setter text(std::string HeadsetSettings::*member) {
    return [=](HeadsetSettings& headset, std::string_view value) {
        headset.*member = value;
        return true;
    };
}

Setter yesNo(bool HeadsetSettings::*member) {
    return [=](HeadsetSettings& headset, std::string_view value) {
        headset.*member = value == "yes";
        return value == "yes" || value == "no";
    };
}

bool setPacking(HeadsetSettings& headset, std::string_view value) {
    headset.packing = value == "multi" ? Packing::Multi : Packing::Single;
    return value == "multi" || value == "single";
}

const std::map<std::string_view, Setter>& setters() {
    using H = HeadsetSettings;
    static const std::map<std::string_view, Setter> all{
        {"address", text(&H::address)},
        {"name", text(&H::name)},
        {"flag", number(&H::scanFlag, -1'000'000, 1'000'000)},
        {"advertises", yesNo(&H::advertises)},
        {"index", number(&H::index, 0, 15)},
        {"channels", number(&H::channels, 1, 16)},
        {"rate", number(&H::sampleRate, 0, 32'000)},
        {"packing", setPacking},
        {"battery", number(&H::battery, 0, 255)},
        {"battery-extra", number(&H::batteryExtra, 0, 63)},
        {"battery-interval", milliseconds(&H::batteryInterval)},
        {"post-interval", milliseconds(&H::postInterval)},
        {"fails", yesNo(&H::connectFails)},
        {"join-after", milliseconds(&H::joinAfter)},
        {"disconnect-after", milliseconds(&H::disconnectAfter)},
        {"rejoin-after", milliseconds(&H::rejoinAfter)},
        {"rejoin-index", number(&H::rejoinIndex, 0, 15)},
    };
    return all;
}

}  // namespace

std::optional<std::string> changeHeadset(const std::string& text, Settings& settings) {
    const std::size_t colon = std::min(text.find(':'), text.size());
    const auto which = wholeNumber<int>(std::string_view(text).substr(0, colon));
    if (!which || colon == text.size()) {
        return "'" + text + "' must begin with the number of a headset and ':'";
    }
    const std::size_t count = settings.headsets.size();
    if (*which < 1 || static_cast<std::size_t>(*which) > count) {
        return "'" + text + "': there is no headset " + std::to_string(*which) + ", " +
               (count == 0 ? "there are none at all" : "they have the numbers 1 to " + std::to_string(count)) +
               " (--headsets)";
    }
    HeadsetSettings& headset = settings.headsets[static_cast<std::size_t>(*which - 1)];
    std::string_view rest = std::string_view(text).substr(colon + 1);
    while (!rest.empty()) {
        const std::string_view part = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), part.size() + 1));
        const std::size_t equals = std::min(part.find('='), part.size());
        const auto setter = setters().find(part.substr(0, equals));
        if (setter == setters().end() || equals == part.size()) {
            std::string known;
            for (const auto& [key, unused] : setters()) {
                known += (known.empty() ? "" : ", ") + std::string(key);
            }
            return "'" + std::string(part) + "' must be key=value with one of the keys " + known;
        }
        if (!setter->second(headset, part.substr(equals + 1))) {
            return "'" + std::string(part) + "' has a value that cannot be used";
        }
    }
    return std::nullopt;
}

}  // namespace dongle
