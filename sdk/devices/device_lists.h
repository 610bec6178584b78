#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "sdk/VelmoraSDK.h"
#include "sdk/devices/ble_device.h"

namespace kxorbeta_if {

/// The two lists of headsets that the host reads, and the exported operations on them. Work with the dongle is handed
/// in, so that this file knows lists only. Any thread.
///
/// Lock order: the list lock comes first. It is held during a whole scan and while the order to drop a headset is
/// queued, and not while connecting.
class DeviceLists {
  public:
    using Scan = std::function<bool()>;
    using ScanResult = std::function<std::vector<ble_device>()>;
    using Connect = std::function<bool(const std::vector<ble_device>&)>;
    using Disconnect = std::function<bool(const ble_device&)>;

    /// Runs a scan; its result replaces the scan list. False, with the list as it was, when the scan failed.
    bool scanDevices(const Scan& scan, const ScanResult& result);

    /// Connects one headset and appends it to the connected list on success. False for null.
    bool connectDevice(const char* address, int option, const Connect& connect);

    /// Disconnects and removes the first connected record with exactly that address. False for null or when there is
    /// none; what `disconnect` returns does not matter.
    bool disconnectDevice(const char* address, const Disconnect& disconnect);

    int scanCount() { return count(scanList_); }
    int connectedCount() { return count(connectedList_); }

    /// Fills `out` from a record; false, with `out` untouched, for null or an index outside the list.
    bool scanDevice(int index, DeviceInfo* out) { return get(scanList_, index, out); }
    bool connectedDevice(int index, DeviceInfo* out) { return get(connectedList_, index, out); }

    /// Forgets all records and gives their memory back.
    void clear();

  private:
    using List = std::vector<ble_device>;

    int count(const List& list);
    bool get(const List& list, int index, DeviceInfo* out);

    std::mutex deviceListMutex_;
    List scanList_;
    List connectedList_;
};

}  // namespace kxorbeta_if
