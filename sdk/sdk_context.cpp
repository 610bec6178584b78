#include "sdk/sdk_context.h"

#include "core/log.h"
#include "core/never_destroyed.h"
#include "sdk/log_setup.h"

namespace kxorbeta_if {
namespace {

std::atomic<int> callsInside{0};

/// Tidies up when the library is unloaded: the port is closed, the log file too, and memory is given back. At the end
/// of a process this runs as well, and then a thread may be in the middle of anything: nothing is touched but the log,
/// which cannot outlive this point.
class Unloading {
  public:
    ~Unloading() {
        logShutdown(kLogFile);
        SdkContext& context = processContext();
        if (callsInside.load() > 0 || context.core.linkThreads.living()) {
            return;
        }
        context.core.port.close();
        std::string().swap(context.rememberedPort);
        context.lists.clear();
        context.core.scanWorkingList.clear();
        context.core.registry.clear();
        context.core.commandQueue.clear();
        context.core.receiveTables.deviceStreams.free();
    }
};

}  // namespace

SdkContext& processContext() noexcept {
    static NeverDestroyed<SdkContext> instance;
    return *instance;
}

HostCall::HostCall() noexcept {
    // Made on the first call rather than at load, so that it goes before the logging library's own state.
    static const Unloading unloading;
    callsInside.fetch_add(1);
}

HostCall::~HostCall() {
    callsInside.fetch_sub(1);
}

}  // namespace kxorbeta_if
