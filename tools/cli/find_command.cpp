#include <algorithm>
#include <iostream>

#include "cli/commands.h"
#include "cli/failure.h"
#include "cli/json.h"

namespace velmora::cli {
namespace {

std::string jsonOf(const std::vector<Port>& ports) {
    Json json;
    json.beginObject().beginArray("ports");
    for (const Port& port : ports) {
        json.beginObject()
            .field("path", port.path)
            .field("dongle", port.status == VELMORA_OK)
            .field("status", velmora_status_text(port.status))
            .field("text", port.text)
            .field("description", port.description)
            .field("usb", (port.flags & VELMORA_PORT_USB) != 0)
            .field("usb_vendor", port.usb_vendor)
            .field("usb_product", port.usb_product)
            .field("usb_serial", port.usb_serial)
            .endObject();
    }
    return json.endArray().endObject().text();
}

}  // namespace

void findCommand(const FindOptions& options, Reporter&) {
    std::string problem;
    const std::vector<Port> ports = findDongles(options.allPorts, problem);
    if (options.json) {
        std::cout << jsonOf(ports) << "\n";
    }
    bool found = false;
    bool kept = false;
    for (const Port& port : ports) {
        found |= port.status == VELMORA_OK;
        kept |= port.status == VELMORA_FORBIDDEN || port.status == VELMORA_HELD;
        if (!options.json && port.status == VELMORA_OK) {
            std::cout << port.path << "\n";
        }
    }
    if (!found) {
        throw Failure(kept ? kNoPort : kNotDone, problem + " More: velmora doctor");
    }
}

}  // namespace velmora::cli
