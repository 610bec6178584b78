#include "session/outcome.h"

namespace velmora {

Outcome cancelled() {
    return failure(VELMORA_CANCELLED, "The call was cancelled.");
}

Outcome closed() {
    return failure(VELMORA_CLOSED, "The handle is closed; open the dongle anew.");
}

Outcome gone() {
    return failure(VELMORA_GONE, "The dongle was unplugged or its port hung up. Plug it in and call velmora_reopen.");
}

Outcome ending(velmora_status status) {
    switch (status) {
        case VELMORA_CLOSED:
            return closed();
        case VELMORA_GONE:
            return gone();
        case VELMORA_RESTARTED:
            return failure(VELMORA_RESTARTED,
                           "The dongle restarted and has forgotten its headsets; connect them again.");
        default:
            return {status};
    }
}

const char* statusName(velmora_status status) {
    switch (status) {
        case VELMORA_OK:
            return "success";
        case VELMORA_TIMEOUT:
            return "time-out";
        case VELMORA_CANCELLED:
            return "cancelled";
        case VELMORA_BUSY:
            return "busy";
        case VELMORA_CLOSED:
            return "handle is closed";
        case VELMORA_GONE:
            return "dongle is gone";
        case VELMORA_RESTARTED:
            return "dongle restarted";
        case VELMORA_NOT_FOUND:
            return "not found";
        case VELMORA_FORBIDDEN:
            return "no permission";
        case VELMORA_HELD:
            return "port is in use";
        case VELMORA_NOT_A_DONGLE:
            return "not a dongle";
        case VELMORA_NOT_CONNECTED:
            return "not connected";
        case VELMORA_NOT_ADDRESSABLE:
            return "not addressable";
        case VELMORA_INVALID:
            return "invalid argument";
        case VELMORA_NO_MEMORY:
            return "out of memory";
        case VELMORA_FAILED:
            return "system error";
        default:
            return "unknown status";
    }
}

}  // namespace velmora
