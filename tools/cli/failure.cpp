#include "cli/failure.h"

namespace velmora::cli {

Failure asFailure(const Error& error) {
    switch (error.status()) {
        case VELMORA_CANCELLED:
            return {kInterrupted, "interrupted"};
        case VELMORA_GONE:
            return {kNoData, "the dongle was unplugged or its port hung up; plug it in and start this command again"};
        case VELMORA_RESTARTED:
            return {kNoData, "the dongle restarted and has forgotten its headsets; start this command again"};
        case VELMORA_BUSY:
            return {kNotDone,
                    "headsets of a run that did not end in order are still connected; drop them with: velmora reset"};
        case VELMORA_NOT_CONNECTED:
            return {kNotConnected, error.what()};
        case VELMORA_NOT_ADDRESSABLE:
            return {kUsage,
                    "the dongle's language has no text that reaches the headset at this index alone; with "
                    "--shared the one is sent that other headsets get too"};
        case VELMORA_INVALID:
            return {kUsage, error.what()};
        default:
            return {kNotDone, error.what()};
    }
}

}  // namespace velmora::cli
