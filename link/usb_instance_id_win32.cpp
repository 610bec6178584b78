#include "link/usb_instance_id_win32.h"

#include <charconv>
#include <cstdint>

namespace kxorbeta_if {
namespace {

/// The four hexadecimal digits behind `mark`.
std::optional<std::uint16_t> digitsBehind(std::string_view text, std::string_view mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view digits = text.substr(at + mark.size(), 4);
    std::uint16_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    return error == std::errc{} && end == digits.data() + 4 ? std::optional(value) : std::nullopt;
}

/// The serial number within ENUMERATOR\DEVICE\INSTANCE.
std::string_view serialNumber(std::string_view device, std::string_view instance) {
    const std::size_t plus = device.find('+');
    if (plus != std::string_view::npos) {
        // VID_0403+PID_6001+SERIALx, x being the letter of the device's port
        const std::size_t last = device.rfind('+');
        const std::string_view withLetter = last > plus ? device.substr(last + 1) : std::string_view();
        return withLetter.substr(0, withLetter.empty() ? 0 : withLetter.size() - 1);
    }
    const bool madeUp = instance.find('&') != std::string_view::npos;
    const bool oneOfSeveral = device.find("&MI_") != std::string_view::npos;
    return madeUp || oneOfSeveral ? std::string_view() : instance;
}

}  // namespace

std::optional<UsbInstance> parseUsbInstanceId(std::string_view id) {
    const auto vendor = digitsBehind(id, "VID_");
    const auto product = digitsBehind(id, "PID_");
    const std::size_t first = id.find('\\');
    const std::size_t last = id.rfind('\\');
    if (!vendor || !product || first == last) {
        return std::nullopt;
    }
    return UsbInstance{{*vendor, *product},
                       std::string(serialNumber(id.substr(first + 1, last - first - 1), id.substr(last + 1)))};
}

}  // namespace kxorbeta_if
