#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kxorbeta_if {

/// One headset as the library knows it.
class ble_device {
  public:
    ble_device() = default;

    /// `addressText` may carry ':' separators; the record does not.
    ble_device(std::string_view addressText, std::int32_t option, std::int32_t index)
        : address_(addressText), option_(option), index_(index) {
        std::erase(address_, ':');
    }

    /// A headset that a scan reported.
    ble_device(std::string_view addressText, std::string_view name, std::int32_t option)
        : ble_device(addressText, option, 0) {
        name_ = name;
    }

    std::string address() const { return address_; }  ///< hexadecimal digits, 12 for a whole address
    std::string name() const { return name_; }        ///< as a scan reported it; empty when not known
    std::int32_t option() const { return option_; }   ///< 0 or 1 from a scan; in a connection request the host's value
    std::int32_t index() const { return index_; }     ///< the dongle's number for it; 0 until reported
    std::int32_t state() const { return state_; }     ///< 1 connected, 0 not; kept by the device registry only

    bool hasAddress(std::string_view text) const noexcept { return address_ == text; }

    void setIndex(std::int32_t index) { index_ = index; }
    void setState(std::int32_t state) { state_ = state; }

  private:
    std::string address_;
    std::string name_;
    std::int32_t option_ = 0;
    std::int32_t index_ = 0;
    std::int32_t state_ = 0;
};

}  // namespace kxorbeta_if
