#include <cerrno>

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

}  // namespace velmora
