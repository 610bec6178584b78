#include "base/log.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <loguru/loguru.hpp>
#include <mutex>
#include <string>
#include <thread>

#include "base/never_destroyed.h"

namespace kxorbeta_if {
namespace {

/// The logging library's state is destroyed when the process ends, while the link thread may still have something to
/// say. Every record passes this gate, which is never destroyed and which closes before that state goes.
class LogGate {
  public:
    template <typename Action>
    void pass(Action&& action) {
        const std::lock_guard guard(mutex_);
        if (!closed_) {
            action();
        }
    }

    template <typename Action>
    void close(Action&& last) {
        // Bounded, because at the end of a Windows process a thread may have been killed inside the gate.
        bool locked = mutex_.try_lock();
        for (int attempt = 0; attempt < 100 && !locked; ++attempt) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            locked = mutex_.try_lock();
        }
        if (!locked) {
            return;
        }
        if (!closed_) {
            last();
        }
        closed_ = true;
        mutex_.unlock();
    }

  private:
    std::mutex mutex_;
    bool closed_ = false;
};

LogGate& gate() {
    static NeverDestroyed<LogGate> instance;
    return *instance;
}

bool fileOpen = false;  // behind the gate

void closeFile(const char* path) {
    if (fileOpen) {  // removing what is not there would log an error
        loguru::remove_callback(path);
        fileOpen = false;
        refreshLogCutoff();
    }
}

std::string formatted(const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    std::string text(256, '\0');
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    if (length >= static_cast<int>(text.size())) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
    }
    va_end(again);
    text.resize(static_cast<std::size_t>(std::max(length, 0)));
    return text;
}

}  // namespace

void refreshLogCutoff() {
    logCutoff = loguru::current_verbosity_cutoff();
}

void logRecord(int verbosity, unsigned line, const char* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    try {
        const std::string text = formatted(format, arguments);
        gate().pass([&] { loguru::log(verbosity, "orbeta_if", line, "%s", text.c_str()); });
    } catch (...) {
    }
    va_end(arguments);
}

void logToFile(const char* path, bool truncate, int verbosity) {
    gate().pass([&] {
        closeFile(path);
        fileOpen = loguru::add_file(path, truncate ? loguru::Truncate : loguru::Append, verbosity);
        refreshLogCutoff();
    });
}

void logCloseFile(const char* path) {
    gate().pass([&] { closeFile(path); });
}

void logConsoleOff() {
    gate().pass([] {
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        refreshLogCutoff();
    });
}

void logShutdown(const char* path) {
    gate().close([&] { closeFile(path); });
}

}  // namespace kxorbeta_if
