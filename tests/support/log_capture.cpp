#include "support/log_capture.h"

#include <algorithm>
#include <loguru/loguru.hpp>
#include <utility>

#include "base/log.h"

namespace test {

LogCapture::LogCapture(int verbosity) : id_("capture " + std::to_string(reinterpret_cast<std::uintptr_t>(this))) {
    loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
    const auto note = [](void* user, const loguru::Message& message) {
        auto& capture = *static_cast<LogCapture*>(user);
        const std::lock_guard guard(capture.mutex_);
        capture.lines_.push_back(std::to_string(message.verbosity) + " " + message.message);
    };
    loguru::add_callback(id_.c_str(), note, this, verbosity);
    kxorbeta_if::refreshLogCutoff();
}

LogCapture::~LogCapture() {
    loguru::remove_callback(id_.c_str());
    kxorbeta_if::refreshLogCutoff();
}

std::vector<std::string> LogCapture::lines() const {
    const std::lock_guard guard(mutex_);
    return lines_;
}

std::vector<std::string> LogCapture::take() {
    const std::lock_guard guard(mutex_);
    return std::exchange(lines_, {});
}

int LogCapture::count(const std::string& line) const {
    const std::lock_guard guard(mutex_);
    return static_cast<int>(std::count(lines_.begin(), lines_.end(), line));
}

}  // namespace test
