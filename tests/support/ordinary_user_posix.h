#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace test {

/// What `check` returns to a user without rights, 0 to 255.
inline int asOrdinaryUser(const std::function<int()>& check) {
    const pid_t child = fork();
    if (child == 0) {
        const bool ordinary =
            geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
        _exit(ordinary ? check() : 255);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
}

}  // namespace test
