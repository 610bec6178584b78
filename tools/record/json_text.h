#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmora::record {

/// UTF-8 text as JSON, in quotation marks.
std::string jsonText(std::string_view text);

/// The shortest decimal that reads back as the value; null for what is not finite.
std::string jsonNumber(double value);

/// "2024-03-05T12:34:56.789012Z" in quotation marks.
std::string jsonTime(std::int64_t utc);

}  // namespace velmora::record
