// What scripts read.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::cli {

/// Builds one JSON value as text, on one line. Calls come in the order of the text; names only inside of objects.
class Json {
  public:
    Json& beginObject(std::string_view name = {});
    Json& endObject() { return end('}'); }
    Json& beginArray(std::string_view name = {});
    Json& endArray() { return end(']'); }

    Json& field(std::string_view name, std::string_view text);
    Json& field(std::string_view name, const char* text) { return field(name, std::string_view(text)); }
    Json& field(std::string_view name, bool value) { return raw(name, value ? "true" : "false"); }
    Json& field(std::string_view name, std::integral auto value) { return raw(name, std::to_string(value)); }
    /// Infinity and what is no number become null.
    Json& field(std::string_view name, double value, int decimals);
    Json& null(std::string_view name) { return raw(name, "null"); }

    const std::string& text() const { return text_; }

  private:
    Json& raw(std::string_view name, std::string_view value);
    Json& end(char bracket);
    void begin(std::string_view name, char bracket);
    void appendQuoted(std::string_view text);

    std::string text_;
};

}  // namespace velmora::cli
