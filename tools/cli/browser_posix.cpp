#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "cli/live_view.h"

namespace velmora::cli {

bool openBrowser(const std::string& address) {
    if (std::getenv("DISPLAY") == nullptr && std::getenv("WAYLAND_DISPLAY") == nullptr) {  // NOLINT(concurrency-*)
        return false;
    }
    // The shell ends at once; what it leaves behind is nobody's child, so that it is never waited for.
    std::string program = "sh";
    std::string option = "-c";
    std::string script =
        "command -v xdg-open >/dev/null || exit 1; setsid xdg-open \"$1\" </dev/null >/dev/null 2>&1 &";
    std::string url = address;
    char* const arguments[] = {program.data(), option.data(), script.data(), program.data(), url.data(), nullptr};
    pid_t child = 0;
    int status = 0;
    return ::posix_spawnp(&child, "sh", nullptr, nullptr, arguments, environ) == 0 &&
           ::waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace velmora::cli
