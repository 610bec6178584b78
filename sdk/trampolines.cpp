#include "sdk/trampolines.h"

#include "base/contained.h"
#include "base/log.h"
#include "sdk/sdk_context.h"

namespace {

template <typename Callback, typename... Arguments>
void callHost(const std::atomic<Callback>& slot, Arguments... arguments) {
    const Callback callback = slot.load();
    if (callback == nullptr) {
        return;
    }
    kxorbeta_if::contained([&] { callback(arguments...); });
}

kxorbeta_if::HostCallbacks& host() {
    return kxorbeta_if::processContext().host;
}

}  // namespace

void internal_postDataCallback(void*, int device, unsigned char value1, unsigned char value2, unsigned char value3,
                               unsigned char value4, unsigned int* const values) {
    callHost(host().postData, device, value1, value2, value3, value4, values);
}

void internal_rawDataCallback(void*, int device, int channel, int* samples, int count) {
    callHost(host().rawData, device, channel, samples, count);
}

void internal_battInfoCallback(void*, int device, unsigned int level, unsigned int value) {
    callHost(host().battInfo, device, level, value);
}

void internal_eventCallback(void*, unsigned int code, unsigned int value, void*) {
    callHost(host().event, code, value);
}

void internal_respCallback(void*, int, unsigned char, unsigned char*, int) {}

namespace kxorbeta_if {

void installTrampolines(CallbackTable& table) {
    KX_LOG(verbosity::kInfo, "Install sdk callback.");
    table.postData = internal_postDataCallback;
    table.rawData = internal_rawDataCallback;
    table.battInfo = internal_battInfoCallback;
    table.response = internal_respCallback;
    table.event = internal_eventCallback;
    table.context = nullptr;
}

}  // namespace kxorbeta_if
