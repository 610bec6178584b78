#include "session/environment.h"

#include "base/never_destroyed.h"
#include "link/port_list.h"
#include "link/port_names.h"
#include "link/serial_port.h"
#include "session/environment_platform.h"

namespace velmora {
namespace {

using kxorbeta_if::Port;

constexpr std::uint32_t kBaud = 2'000'000;

// 8 data bits, no parity, one stop bit, as indexes of Port::open.
constexpr int kEightBits = 3;
constexpr int kNoParity = 0;
constexpr int kOneStopBit = 0;

/// Without the prefix that Windows has for devices.
std::string plainPath(const std::string& path) {
    return path.starts_with(kxorbeta_if::kPortPrefix) ? path.substr(kxorbeta_if::kPortPrefix.size()) : path;
}

std::string reason(int code) {
    return code != 0 ? " (" + systemText(code) + ")" : "";
}

Outcome openFailure(Port::Result result, int code, const std::string& path, const Environment& environment) {
    if (result == Port::kNoSuchPort) {
        return failure(VELMORA_NOT_FOUND,
                       "There is no port " + path + ". Plug the dongle in, or look where it is with velmora_ports.",
                       code);
    }
    if (result != Port::kOpenFailed) {
        return failure(VELMORA_FAILED,
                       path + " refuses the dongle's line settings" + reason(code) + "; it is no port of a dongle.",
                       code);
    }
    for (const velmora_port& port : environment.listPorts(Environment::Holders::kLook)) {
        if (samePort(path, port.path) && port.status != VELMORA_OK) {
            return failure(port.status, port.text, code);
        }
    }
    switch (statusOfOpenError(code)) {
        case VELMORA_FORBIDDEN:
            return failure(VELMORA_FORBIDDEN, "This user may not open " + path + reason(code) + ".", code);
        case VELMORA_HELD:
            return failure(
                VELMORA_HELD,
                "Another program holds " + path + "; which one cannot be seen from here. Close it and try again.",
                code);
        default:
            return failure(VELMORA_FAILED, "The system does not open " + path + reason(code) + ".", code);
    }
}

/// What keeps this user from a port, as far as the list shows; success otherwise.
Outcome obstacle(const kxorbeta_if::PortInfo& info, const std::string& path) {
    if (!info.holders.empty()) {
        std::string who;
        for (const kxorbeta_if::PortHolder& holder : info.holders) {
            who += (who.empty() ? "" : ", ") + (holder.program.empty() ? "a program" : holder.program) + " (process " +
                   std::to_string(holder.process) + ")";
        }
        return failure(VELMORA_HELD, path + " is held by " + who + ". Close it and try again.");
    }
    if (info.access == kxorbeta_if::PortInfo::Access::kDenied) {
        return failure(VELMORA_FORBIDDEN, info.accessGroup.empty()
                                              ? "This user may not open " + path + "; an administrator has to allow it."
                                              : "This user may not open " + path + ". Members of the group " +
                                                    info.accessGroup +
                                                    " may: have this user added to it, log in again, and try again.");
    }
    return {};
}

velmora_port describe(const kxorbeta_if::PortInfo& info) {
    const std::string path = plainPath(info.path);
    const Outcome hindered = obstacle(info, path);
    velmora_port port{};
    copyText(port.path, path);
    copyText(port.description, info.description);
    copyText(port.usb_serial, info.serialNumber);
    if (info.usb) {
        port.usb_vendor = info.usb->vendor;
        port.usb_product = info.usb->product;
        port.flags = VELMORA_PORT_USB;
    }
    port.status = hindered.status;
    copyText(port.text, hindered.text);
    return port;
}

class SystemEnvironment : public Environment {
  public:
    SystemEnvironment() {
        makePort = [] {
            return std::make_unique<kxorbeta_if::SerialPort>(kxorbeta_if::SerialPort::kDeviceFolder,
                                                             kxorbeta_if::openOverlapped);
        };
        listPorts = [](Holders holders) {
            kxorbeta_if::PortFolders folders;
            if (holders == Holders::kLeaveOut) {
                folders.processes.clear();
            }
            std::vector<velmora_port> ports;
            for (const kxorbeta_if::PortInfo& info : kxorbeta_if::listPorts(folders)) {
                ports.push_back(describe(info));
            }
            return ports;
        };
    }
};

}  // namespace

const Environment& systemEnvironment() {
    static kxorbeta_if::NeverDestroyed<SystemEnvironment> instance;
    return *instance;
}

Outcome openForDongle(Port& port, const std::string& path, const Environment& environment) {
    const std::string name = std::string(kxorbeta_if::kPortPrefix) + plainPath(path);
    const Port::Result result = port.open(name.c_str(), kBaud, kEightBits, kNoParity, kOneStopBit);
    if (result == Port::kOpened) {
        return {};
    }
    const int code = port.systemError();
    port.close();
    return openFailure(result, code, path, environment);
}

}  // namespace velmora
