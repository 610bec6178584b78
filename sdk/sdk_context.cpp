#include "sdk/sdk_context.h"

#include "base/log.h"
#include "base/never_destroyed.h"
#include "sdk/log_setup.h"

namespace kxorbeta_if {
namespace {

std::atomic<int> callsInside{0};

/// Tidies up when the library is unloaded: the port is closed, the log file too, and memory is given back. At the end
/// of a process this runs as well, and then a thread may be in the middle of anything: nothing is touched but the log,
/// which cannot outlive this point, and the callbacks: what they lead to (an interpreter, a host's static objects) goes
/// away from now on, and a link thread that called it would crash a host that only left.
class Unloading {
  public:
    explicit Unloading(SdkContext& sdk) : sdk_(sdk) {}
    ~Unloading() {
        sdk_.host.forget();
        logShutdown(kLogFile);
        if (callsInside.load() > 0 || sdk_.core.linkThreads.living()) {
            return;
        }
        sdk_.port.close();
        sdk_.rememberedPort.drop();
        sdk_.lists.clear();
        sdk_.core.scanWorkingList.clear();
        sdk_.core.registry.clear();
        sdk_.core.commandQueue.clear();
        sdk_.core.receiveTables.deviceStreams.free();
    }
    Unloading(const Unloading&) = delete;
    Unloading& operator=(const Unloading&) = delete;

  private:
    SdkContext& sdk_;
};

}  // namespace

SdkContext& processContext() {
    static NeverDestroyed<SdkContext> instance;
    return *instance;
}

HostCall::HostCall() : sdk_(processContext()) {
    // Made on the first call rather than at load, so that it goes before the logging library's own state.
    static const Unloading unloading(sdk_);
    callsInside.fetch_add(1);
}

HostCall::~HostCall() {
    callsInside.fetch_sub(1);
}

}  // namespace kxorbeta_if
