#include <windows.h>
// After <windows.h>, which it needs.
#include <shellapi.h>

#include <iostream>
#include <streambuf>

#include "base/windows_text.h"
#include "cli/terminal.h"

namespace velmora::cli {
namespace {

/// Shows UTF-8 on a console, a line or more in each call: the C library hands it over byte by byte, which cuts letters
/// to pieces and lets a table flicker.
class ConsoleBuffer final : public std::streambuf {
  public:
    explicit ConsoleBuffer(HANDLE console) : console_(console) {}

  protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        waiting_.append(text, static_cast<std::size_t>(count));
        return waiting_.ends_with('\n') && sync() != 0 ? 0 : count;
    }
    int_type overflow(int_type c) override {
        const char letter = traits_type::to_char_type(c);
        return xsputn(&letter, 1) == 1 ? c : traits_type::eof();
    }
    int sync() override {
        const std::wstring letters = kxorbeta_if::wide(waiting_);
        waiting_.clear();
        DWORD written = 0;
        return letters.empty() || ::WriteConsoleW(console_, letters.data(), static_cast<DWORD>(letters.size()),
                                                  &written, nullptr) != 0
                   ? 0
                   : -1;
    }

  private:
    const HANDLE console_;
    std::string waiting_;
};

void showUtf8(std::ostream& stream, DWORD handle) {
    const HANDLE console = ::GetStdHandle(handle);
    DWORD mode = 0;
    if (::GetConsoleMode(console, &mode) != 0) {
        stream.rdbuf(new ConsoleBuffer(console));  // for as long as anything may write, the end of the program included
    }
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
    showUtf8(std::cout, STD_OUTPUT_HANDLE);
    showUtf8(std::cerr, STD_ERROR_HANDLE);
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
            arguments.push_back(kxorbeta_if::utf8(wide[i]));
        }
        ::LocalFree(wide);
    }
    return arguments;
}

struct Keyboard::Inside {
    HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE);
    DWORD mode = 0;
    bool console = ::GetConsoleMode(input, &mode) != 0;
    bool pipe = ::GetFileType(input) == FILE_TYPE_PIPE;
};

Keyboard::Keyboard() : inside_(new Inside) {}

Keyboard::~Keyboard() {
    delete inside_;
}

std::optional<char> Keyboard::poll() {
    DWORD events = 0;
    INPUT_RECORD event{};
    // Reading takes out what a look has shown; alone it would wait.
    while (inside_->console && ::PeekConsoleInputW(inside_->input, &event, 1, &events) && events > 0) {
        (void)::ReadConsoleInputW(inside_->input, &event, 1, &events);
        const wchar_t letter = event.Event.KeyEvent.uChar.UnicodeChar;
        if (event.EventType == KEY_EVENT && event.Event.KeyEvent.bKeyDown && letter >= 0x20 && letter <= 0x7E) {
            return static_cast<char>(letter);
        }
    }
    if (inside_->console) {
        return std::nullopt;  // reading would wait for the end of a line
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
