#include <span>
#include <string>
#include <vector>

#include "base/contained.h"
#include "base/log.h"
#include "base/never_destroyed.h"
#include "core/device_command.h"
#include "core/disconnection.h"
#include "core/group_connection.h"
#include "core/scan.h"
#include "link/dongle_search.h"
#include "sdk/VelmoraSDK.h"
#include "sdk/held_text.h"
#include "sdk/log_setup.h"
#include "sdk/sdk_context.h"
#include "sdk/trampolines.h"

// The exported functions: each checks its arguments, calls the work, and turns whatever is thrown into its failure.

using namespace kxorbeta_if;

namespace {

/// Runs `work` on the process's context; its result, or `failure` when it throws.
template <typename Result, typename Work>
Result guarded(Result failure, Work&& work) {
    return contained(
        [&] {
            HostCall call;
            return work(call.sdk());
        },
        [&] { return failure; });
}

template <typename Work>
void guarded(Work&& work) {
    guarded(0, [&](SdkContext& sdk) {
        work(sdk);
        return 1;
    });
}

}  // namespace

extern "C" {

int SDK_Init(void) {
    return guarded(0, [](SdkContext& sdk) {
        if (!sdk.initialised) {
            constexpr unsigned logLevel = 1;
            setUpLogging(logLevel, sdk.core.flags, sdk.version.c_str());
            installTrampolines(sdk.core.callbacks);
            sdk.initialised = true;
        }
        return 1;
    });
}

void SDK_Cleanup(void) {
    guarded([](SdkContext& sdk) {
        if (!sdk.initialised) {
            return;
        }
        disconnectAll(sdk.core);
        if (sdk.core.port.isOpen()) {
            sdk.core.port.close();
            sdk.core.linkThreads.prod();
        }
        KX_LOG(verbosity::kInfo, "KXSDK cleanup.");
        sdk.initialised = false;
    });
}

const char* SDK_GetVersion(void) {
    return guarded("Unknown", [](SdkContext& sdk) {
        static NeverDestroyed<HeldText> result;
        return (*result).hold(sdk.version);
    });
}

const char* SDK_CheckPort(void) {
    return guarded("", [](SdkContext& sdk) {
        static NeverDestroyed<HeldText> result;
        return (*result).hold(sdk.core.port.isOpen() ? std::string() : findDongle(sdk.search));
    });
}

int SDK_ConnectPort(const char* portName) {
    return guarded(0, [&](SdkContext& sdk) {
        if (portName == nullptr || sdk.core.port.isOpen() || !openDonglePort(sdk.core.port, portName)) {
            return 0;
        }
        sdk.rememberedPort.hold(portName);
        return 1;
    });
}

void SDK_DisconnectPort(void) {
    guarded([](SdkContext& sdk) {
        KX_LOG(verbosity::kInfo, "Disconnect device and dongle.");
        if (sdk.core.port.isOpen()) {
            // With collection off the dongle is not told; hosts that want it told disconnect while collecting.
            if (sdk.core.flags.recording) {
                disconnectAll(sdk.core);
            }
            sdk.core.port.close();
            sdk.core.linkThreads.prod();
        }
        sdk.rememberedPort.drop();
    });
}

int SDK_ScanDevices(void) {
    return guarded(0, [](SdkContext& sdk) {
        const bool replaced =
            sdk.lists.scanDevices([&] { return scan(sdk.core); }, [&] { return sdk.core.scanWorkingList.snapshot(); });
        return replaced ? 1 : 0;
    });
}

int SDK_GetScanDevicesCount(void) {
    return HostCall().sdk().lists.scanCount();
}

int SDK_GetScanDevice(int index, DeviceInfo* out) {
    return HostCall().sdk().lists.scanDevice(index, out) ? 1 : 0;
}

int SDK_ConnectDevice(const char* address, int option) {
    return guarded(0, [&](SdkContext& sdk) {
        const bool connected = sdk.lists.connectDevice(address, option, [&](const std::vector<ble_device>& devices) {
            return connectGroup(sdk.core, devices, 0);
        });
        return connected ? 1 : 0;
    });
}

int SDK_DisconnectDevice(const char* address) {
    return guarded(0, [&](SdkContext& sdk) {
        const bool removed = sdk.lists.disconnectDevice(
            address, [&](const ble_device& device) { return disconnectDevice(sdk.core, device); });
        return removed ? 1 : 0;
    });
}

int SDK_GetConnectedDevicesCount(void) {
    return HostCall().sdk().lists.connectedCount();
}

int SDK_GetConnectedDevice(int index, DeviceInfo* out) {
    return HostCall().sdk().lists.connectedDevice(index, out) ? 1 : 0;
}

int SDK_StartDataCollection(void) {
    return guarded(0, [](SdkContext& sdk) {
        if (!sdk.core.flags.groupConnected) {
            KX_LOG(verbosity::kWarning, "No device connected");
            return 0;
        }
        sdk.core.receiveTables.reset();
        sdk.core.flags.recording = true;
        KX_LOG(verbosity::kInfo, "Orbeta record start");
        return 1;
    });
}

int SDK_StopDataCollection(void) {
    return guarded(1, [](SdkContext& sdk) {
        sdk.core.flags.recording = false;
        KX_LOG(verbosity::kInfo, "Orbeta record stop");
        return 1;
    });
}

int SDK_SendCommand(unsigned int target, unsigned char command) {
    return guarded(0, [&](SdkContext& sdk) {
        return sendCommand(sdk.core.flags, sdk.core.commandQueue, target, command) ? 1 : 0;
    });
}

int SDK_SendCommandWithPayload(unsigned int target, unsigned char command, unsigned char* payload,
                               unsigned char payloadLength) {
    return guarded(0, [&](SdkContext& sdk) {
        if (payload == nullptr && payloadLength > 0) {
            return 0;
        }
        const std::span<const std::uint8_t> bytes(payload, payloadLength);
        return sendCommandWithPayload(sdk.core.flags, sdk.core.commandQueue, target, command, bytes) ? 1 : 0;
    });
}

void SDK_SetPostDataCallback(PostDataCallback callback) {
    guarded([&](SdkContext& sdk) { sdk.host.postData = callback; });
}
void SDK_SetRawDataCallback(RawDataCallback callback) {
    guarded([&](SdkContext& sdk) { sdk.host.rawData = callback; });
}
void SDK_SetBattInfoCallback(BattInfoCallback callback) {
    guarded([&](SdkContext& sdk) { sdk.host.battInfo = callback; });
}
void SDK_SetEventCallback(EventCallback callback) {
    guarded([&](SdkContext& sdk) { sdk.host.event = callback; });
}

}  // extern "C"
