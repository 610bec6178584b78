#pragma once

#include <atomic>
#include <string>

#include "core/context.h"
#include "link/dongle_search.h"
#include "link/serial_port.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/devices/device_lists.h"
#include "sdk/held_text.h"

namespace kxorbeta_if {

/// The host's callbacks, null until set. Independent of everything else, so that a host sets them when it likes.
struct HostCallbacks {
    std::atomic<PostDataCallback> postData{nullptr};
    std::atomic<RawDataCallback> rawData{nullptr};
    std::atomic<BattInfoCallback> battInfo{nullptr};
    std::atomic<EventCallback> event{nullptr};

    void forget() {
        postData = nullptr;
        rawData = nullptr;
        battInfo = nullptr;
        event = nullptr;
    }
};

/// The state of the library as one process sees it.
struct SdkContext {
    std::atomic<bool> initialised{false};
    const std::string version = VELMORA_SDK_VERSION;
    HeldText rememberedPort;  ///< what the host named the open port; empty when none is
    DongleSearch search;
    HostCallbacks host;
    DeviceLists lists;
    SerialPort port;
    Context core{port};
};

/// The one instance, made on first use. It is never destroyed, because threads of the library and of the host may still
/// use it while the process ends. Throws std::bad_alloc when there is no memory to make it; a later call tries again.
SdkContext& processContext();

/// A host's call while it is inside the library: counted, so that the library's end does not tidy up under it. Throws
/// what processContext() throws.
class HostCall {
  public:
    HostCall();
    ~HostCall();
    HostCall(const HostCall&) = delete;
    HostCall& operator=(const HostCall&) = delete;

    SdkContext& sdk() { return sdk_; }

  private:
    SdkContext& sdk_;
};

}  // namespace kxorbeta_if
