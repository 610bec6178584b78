#include "base/windows_text.h"

#include <windows.h>

#include <array>

namespace kxorbeta_if {

std::string utf8(std::wstring_view text) {
    const auto letters = static_cast<int>(text.size());
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), letters, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), letters, result.data(), size, nullptr, nullptr);
    return result;
}

std::wstring wide(std::string_view utf8) {
    const auto bytes = static_cast<int>(utf8.size());
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, result.data(), size);
    return result;
}

std::string systemText(unsigned long code) {
    std::array<wchar_t, 256> text{};
    const DWORD size = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                                        text.data(), static_cast<DWORD>(text.size()), nullptr);
    std::string result = utf8({text.data(), size});
    while (!result.empty() && (result.back() == '\n' || result.back() == '\r' || result.back() == ' ')) {
        result.pop_back();
    }
    return result.empty() ? "Windows error " + std::to_string(code) : result;
}

}  // namespace kxorbeta_if
