#pragma once

#include <algorithm>
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
    /// Runs `scan`; what `result` then gives replaces the scan list. False, with the list as it was, when the scan
    /// failed.
    template <typename Scan, typename Result>
    bool scanDevices(Scan&& scan, Result&& result) {
        const std::lock_guard guard(deviceListMutex_);
        if (!scan()) {
            return false;
        }
        scanList_ = result();
        return true;
    }

    /// Connects one headset, given as a list of one, and appends it to the connected list on success. False for null.
    template <typename Connect>
    bool connectDevice(const char* address, int option, Connect&& connect) {
        if (address == nullptr) {
            return false;
        }
        const ble_device device(address, option, 0);
        if (!connect(List{device})) {
            return false;
        }
        const std::lock_guard guard(deviceListMutex_);
        connectedList_.push_back(device);
        return true;
    }

    /// Disconnects and removes the first connected record with exactly that address. False for null or when there is
    /// none; what `disconnect` returns does not matter.
    template <typename Disconnect>
    bool disconnectDevice(const char* address, Disconnect&& disconnect) {
        if (address == nullptr) {
            return false;
        }
        const std::lock_guard guard(deviceListMutex_);
        const auto record = std::find_if(connectedList_.begin(), connectedList_.end(),
                                         [&](const ble_device& device) { return device.hasAddress(address); });
        if (record == connectedList_.end()) {
            return false;
        }
        disconnect(*record);
        connectedList_.erase(record);
        return true;
    }

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
    bool get(List& list, int index, DeviceInfo* out);

    std::mutex deviceListMutex_;
    List scanList_;
    List connectedList_;
};

}  // namespace kxorbeta_if
