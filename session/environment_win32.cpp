#include <windows.h>

#include "session/environment_platform.h"

namespace velmora {

velmora_status statusOfOpenError(int code) {
    // A serial port has one owner at a time and no other permissions worth speaking of.
    return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION ? VELMORA_HELD : VELMORA_FAILED;
}

}  // namespace velmora
