#define WIN32_LEAN_AND_MEAN
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// After <windows.h>, which it needs.
#include <conio.h>
#include <shellapi.h>

#include "cli/terminal.h"

namespace velmora::cli {
namespace {

std::string utf8(const wchar_t* text) {
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size > 0 ? size : 1), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), size, nullptr, nullptr);
    result.pop_back();  // the zero byte
    return result;
}

}  // namespace

Console consoleOfOutput() {
    Console console;
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &info)) {
        console.interactive = true;
        console.width = info.srWindow.Right - info.srWindow.Left + 1;
        console.height = info.srWindow.Bottom - info.srWindow.Top + 1;
    }
    return console;
}

void prepareConsole() {
    ::SetConsoleOutputCP(CP_UTF8);
}

void eraseLines(int count) {
    // By calls instead of control characters, which consoles of older systems show as they are.
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!::GetConsoleScreenBufferInfo(output, &info)) {
        return;
    }
    const int row = info.dwCursorPosition.Y > count ? info.dwCursorPosition.Y - count : 0;
    const COORD start{0, static_cast<SHORT>(row)};
    const auto cells = static_cast<DWORD>(info.dwSize.X) * static_cast<DWORD>(info.dwCursorPosition.Y - row + 1);
    DWORD written = 0;
    ::FillConsoleOutputCharacterW(output, L' ', cells, start, &written);
    ::SetConsoleCursorPosition(output, start);
}

std::vector<std::string> programArguments(int, char**) {
    // What main() gets went through the system's code page, which has no place for most letters of the world.
    std::vector<std::string> arguments;
    int count = 0;
    if (LPWSTR* const wide = ::CommandLineToArgvW(::GetCommandLineW(), &count)) {
        for (int i = 1; i < count; ++i) {
            arguments.push_back(utf8(wide[i]));
        }
        ::LocalFree(wide);
    }
    return arguments;
}

struct Keyboard::Inside {
    HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
    bool console = ::GetFileType(input) == FILE_TYPE_CHAR;
    bool pipe = ::GetFileType(input) == FILE_TYPE_PIPE;
};

Keyboard::Keyboard() : inside_(new Inside) {}

Keyboard::~Keyboard() {
    delete inside_;
}

std::optional<char> Keyboard::poll() {
    if (inside_->console) {
        return ::_kbhit() != 0 ? std::optional(static_cast<char>(::_getch())) : std::nullopt;
    }
    DWORD waiting = 0;
    if (inside_->pipe && !::PeekNamedPipe(inside_->input, nullptr, 0, nullptr, &waiting, nullptr)) {
        return std::nullopt;  // the other end has closed it
    }
    char key = 0;
    DWORD got = 0;
    if ((inside_->pipe && waiting == 0) || !::ReadFile(inside_->input, &key, 1, &got, nullptr) || got == 0) {
        return std::nullopt;
    }
    return key;
}

}  // namespace velmora::cli
