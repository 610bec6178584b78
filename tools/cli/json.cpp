#include "cli/json.h"

#include <cmath>

#include "cli/text.h"

namespace velmora::cli {

Json& Json::beginObject(std::string_view name) {
    begin(name, '{');
    return *this;
}

Json& Json::beginArray(std::string_view name) {
    begin(name, '[');
    return *this;
}

Json& Json::field(std::string_view name, std::string_view text) {
    raw(name, "");
    appendQuoted(text);
    return *this;
}

Json& Json::field(std::string_view name, double value, int decimals) {
    return raw(name, std::isfinite(value) ? fixed(value, decimals) : "null");
}

Json& Json::raw(std::string_view name, std::string_view value) {
    if (!text_.empty() && text_.back() != '{' && text_.back() != '[') {
        text_ += ", ";
    }
    if (!name.empty()) {
        appendQuoted(name);
        text_ += ": ";
    }
    text_ += value;
    return *this;
}

Json& Json::end(char bracket) {
    text_ += bracket;
    return *this;
}

void Json::begin(std::string_view name, char bracket) {
    raw(name, "");
    text_ += bracket;
}

void Json::appendQuoted(std::string_view text) {
    constexpr const char* kDigits = "0123456789abcdef";
    text_ += '"';
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            text_ += '\\';
            text_ += c;
        } else if (byte < 0x20) {
            text_ += "\\u00";
            text_ += kDigits[byte >> 4U];
            text_ += kDigits[byte & 15U];
        } else {
            text_ += c;
        }
    }
    text_ += '"';
}

}  // namespace velmora::cli
