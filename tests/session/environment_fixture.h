#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "dongle/dongle_settings.h"
#include "link/serial_port.h"
#include "session/environment.h"

namespace test {

/// What connects all headsets of a dongle.
inline std::vector<velmora_wanted> everybody(const dongle::Settings& settings) {
    std::vector<velmora_wanted> wanted(settings.headsets.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        settings.headsets[i].address.copy(wanted[i].address, 12);
    }
    return wanted;
}

/// A machine whose list of ports the test writes.
class FakeMachine {
  public:
    void plug(const std::string& path, const std::string& usbSerial, velmora_status status = VELMORA_OK,
              bool usb = true) {
        velmora_port port{};
        velmora::copyText(port.path, path);
        velmora::copyText(port.usb_serial, usbSerial);
        port.flags = usb ? VELMORA_PORT_USB : 0;
        port.status = status;
        if (status != VELMORA_OK) {
            velmora::copyText(port.text, "for a reason");
        }
        const std::lock_guard guard(mutex_);
        ports_.push_back(port);
    }
    void unplugAll() {
        const std::lock_guard guard(mutex_);
        ports_.clear();
    }

    velmora::Environment environment() {
        velmora::Environment environment = velmora::systemEnvironment();
        environment.listPorts = [this](velmora::Environment::Holders) {
            const std::lock_guard guard(mutex_);
            return ports_;
        };
        return environment;
    }

  private:
    std::mutex mutex_;
    std::vector<velmora_port> ports_;
};

}  // namespace test
