#pragma once

#include <atomic>
#include <string>

#include "core/context.h"
#include "link/dongle_search.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/devices/device_lists.h"

namespace kxorbeta_if {

/// The host's callbacks, null until set. Independent of everything else, so that a host sets them when it likes.
struct HostCallbacks {
    std::atomic<PostDataCallback> postData{nullptr};
    std::atomic<RawDataCallback> rawData{nullptr};
    std::atomic<BattInfoCallback> battInfo{nullptr};
    std::atomic<EventCallback> event{nullptr};
};

/// The state of the library as one process sees it.
struct SdkContext {
    std::atomic<bool> initialised{false};
    const std::string version = "1.06";
    std::string rememberedPort;  ///< what the host named the open port; empty when none is
    DongleSearch search;
    HostCallbacks host;
    DeviceLists lists;
    Context core;
};

/// The one instance, made on first use. It is never destroyed, because threads of the library and of the host may still
/// use it while the process ends.
SdkContext& processContext() noexcept;

/// Counts the host's calls that are inside the library, so that its end does not tidy up under them.
class HostCall {
  public:
    HostCall() noexcept;
    ~HostCall();
    HostCall(const HostCall&) = delete;
    HostCall& operator=(const HostCall&) = delete;
};

}  // namespace kxorbeta_if
