#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <iostream>

#include "cli/terminal.h"

namespace velmora::cli {

Console consoleOfOutput() {
    Console console;
    console.interactive = ::isatty(STDOUT_FILENO) == 1;
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        console.width = size.ws_col;
        console.height = size.ws_row;
    }
    return console;
}

void prepareConsole() {}

void eraseLines(int count) {
    // Up to the first of them, then clear from there to the end of the screen.
    std::cout << "\x1b[" << count << "A\r\x1b[J";
}

std::vector<std::string> programArguments(int argc, char** argv) {
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

struct Keyboard::Inside {
    bool terminal = false;
    bool ended = false;
    termios before{};
};

Keyboard::Keyboard() : inside_(new Inside) {
    // A job in the background must not touch the terminal: the system would stop it.
    inside_->terminal = ::tcgetattr(STDIN_FILENO, &inside_->before) == 0;
    inside_->ended = inside_->terminal && ::tcgetpgrp(STDIN_FILENO) != ::getpgrp();
    if (inside_->terminal && !inside_->ended) {
        termios settings = inside_->before;
        settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        ::tcsetattr(STDIN_FILENO, TCSANOW, &settings);
    }
}

Keyboard::~Keyboard() {
    if (inside_->terminal && !inside_->ended) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &inside_->before);
    }
    delete inside_;
}

std::optional<char> Keyboard::poll() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (inside_->ended || ::poll(&input, 1, 0) <= 0) {
        return std::nullopt;
    }
    char key = 0;
    if (::read(STDIN_FILENO, &key, 1) != 1) {
        inside_->ended = !inside_->terminal;
        return std::nullopt;
    }
    return key;
}

}  // namespace velmora::cli
