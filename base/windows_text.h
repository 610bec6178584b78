// Texts between us, who have UTF-8, and Windows.
#pragma once

#include <string>
#include <string_view>

namespace kxorbeta_if {

std::string utf8(std::wstring_view text);
std::wstring wide(std::string_view utf8);

/// What Windows says of one of its error codes, without a line end.
std::string systemText(unsigned long code);

}  // namespace kxorbeta_if
