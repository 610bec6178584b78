#include <cerrno>
#include <filesystem>
#include <system_error>

#include "link/port_names.h"
#include "link/serial_port.h"
#include "session/environment_platform.h"

namespace velmora {

velmora_status statusOfOpenError(int code) {
    switch (code) {
        case EACCES:
        case EPERM:
            return VELMORA_FORBIDDEN;
        case EBUSY:
        case EWOULDBLOCK:  // the lock
            return VELMORA_HELD;
        default:
            return VELMORA_FAILED;
    }
}

std::string systemText(int code) {
    return std::system_category().message(code);
}

bool samePort(const std::string& a, const std::string& b) {
    const auto resolved = [](const std::string& name) {
        const std::filesystem::path file = kxorbeta_if::deviceFile(name, kxorbeta_if::SerialPort::kDeviceFolder);
        std::error_code refused;
        const std::filesystem::path target = std::filesystem::weakly_canonical(file, refused);
        return refused ? file : target;
    };
    return a == b || resolved(a) == resolved(b);
}

}  // namespace velmora
