#include <windows.h>

#include <cstring>

#include "base/windows_text.h"
#include "link/port_names.h"
#include "session/environment_platform.h"

namespace velmora {

velmora_status statusOfOpenError(int code) {
    // A serial port has one owner at a time and no other permissions worth speaking of.
    return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION ? VELMORA_HELD : VELMORA_FAILED;
}

std::string systemText(int code) {
    return kxorbeta_if::systemText(static_cast<unsigned long>(code));
}

bool samePort(const std::string& a, const std::string& b) {
    const auto plain = [](const std::string& name) {
        return name.c_str() + (name.starts_with(kxorbeta_if::kPortPrefix) ? kxorbeta_if::kPortPrefix.size() : 0);
    };
    return ::_stricmp(plain(a), plain(b)) == 0;
}

}  // namespace velmora
