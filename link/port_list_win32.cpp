#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <string_view>
#include <utility>

#include "base/windows_text.h"
#include "link/port_list.h"
#include "link/port_names.h"
#include "link/usb_instance_id_win32.h"

#include <windows.h>
// After <windows.h>, which they need.
#include <cfgmgr32.h>
#include <setupapi.h>

namespace kxorbeta_if {
namespace {

// GUID_DEVINTERFACE_COMPORT, whose header is one for drivers.
constexpr GUID kSerialPortInterface = {0x86E0D1E0, 0x8089, 0x11D0, {0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F, 0x73}};

using Ports = std::map<std::string, PortInfo, decltype(&portNameLess)>;

bool isPortName(std::string_view name) {
    return name.size() > 3 && name.starts_with("COM") &&
           std::all_of(name.begin() + 3, name.end(), [](unsigned char c) { return isdigit(c); });
}

PortInfo& add(Ports& ports, const std::string& name) {
    PortInfo& port = ports[name];
    port.name = name;
    port.path = std::string(kPortPrefix) + name;
    return port;
}

/// What drivers have entered in the registry.
void addRegistered(Ports& ports) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, R"(HARDWARE\DEVICEMAP\SERIALCOMM)", 0, KEY_QUERY_VALUE, &key) !=
        ERROR_SUCCESS) {
        return;
    }
    for (DWORD i = 0;; ++i) {
        std::array<char, 256> device{};
        std::array<char, 256> name{};
        DWORD deviceSize = device.size();
        DWORD nameSize = name.size() - 1;  // the text's zero byte need not be there
        DWORD type = 0;
        const LSTATUS status = RegEnumValueA(key, i, device.data(), &deviceSize, nullptr, &type,
                                             reinterpret_cast<BYTE*>(name.data()), &nameSize);
        if (status == ERROR_NO_MORE_ITEMS) {
            break;
        }
        if (status == ERROR_SUCCESS && type == REG_SZ && isPortName(name.data())) {
            add(ports, name.data());
        }
    }
    RegCloseKey(key);
}

/// Names that lead to a device, entered or not.
void addNamed(Ports& ports) {
    std::vector<char> names(1 << 16);
    while (QueryDosDeviceA(nullptr, names.data(), static_cast<DWORD>(names.size())) == 0) {
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || names.size() > (1 << 24)) {
            return;
        }
        names.resize(names.size() * 2);
    }
    for (const char* name = names.data(); *name != '\0'; name += std::string_view(name).size() + 1) {
        if (isPortName(name)) {
            add(ports, name);
        }
    }
}

std::string property(HDEVINFO devices, SP_DEVINFO_DATA& device, DWORD which) {
    std::array<wchar_t, 512> text{};
    SetupDiGetDeviceRegistryPropertyW(devices, &device, which, nullptr, reinterpret_cast<BYTE*>(text.data()),
                                      static_cast<DWORD>((text.size() - 1) * sizeof text[0]), nullptr);
    return utf8(text.data());
}

std::string portName(HDEVINFO devices, SP_DEVINFO_DATA& device) {
    std::array<char, 64> name{};
    const HKEY key = SetupDiOpenDevRegKey(devices, &device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_QUERY_VALUE);
    if (key != INVALID_HANDLE_VALUE) {
        DWORD size = name.size() - 1;
        RegQueryValueExA(key, "PortName", nullptr, nullptr, reinterpret_cast<BYTE*>(name.data()), &size);
        RegCloseKey(key);
    }
    return name.data();
}

std::string instanceId(DEVINST device) {
    std::array<char, MAX_DEVICE_ID_LEN + 1> id{};
    return CM_Get_Device_IDA(device, id.data(), static_cast<ULONG>(id.size()), 0) == CR_SUCCESS ? id.data() : "";
}

void describeUsb(DEVINST device, PortInfo& port) {
    auto usb = parseUsbInstanceId(instanceId(device));
    if (!usb) {
        return;
    }
    DEVINST parent = 0;
    if (usb->serialNumber.empty() && CM_Get_Parent(&parent, device, 0) == CR_SUCCESS) {
        // Of a device with several functions, the whole has the serial number.
        if (const auto whole = parseUsbInstanceId(instanceId(parent)); whole && whole->id == usb->id) {
            usb->serialNumber = whole->serialNumber;
        }
    }
    port.usb = usb->id;
    port.serialNumber = usb->serialNumber;
}

void describe(Ports& ports) {
    const HDEVINFO devices =
        SetupDiGetClassDevsA(&kSerialPortInterface, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (devices == INVALID_HANDLE_VALUE) {
        return;
    }
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    for (DWORD i = 0; SetupDiEnumDeviceInfo(devices, i, &device) != 0; ++i) {
        const std::string name = portName(devices, device);
        if (!isPortName(name)) {
            continue;
        }
        PortInfo& port = add(ports, name);
        const std::string maker = property(devices, device, SPDRP_MFG);
        port.description = property(devices, device, SPDRP_DEVICEDESC);
        if (!maker.empty() && !port.description.starts_with(maker)) {
            port.description = maker + " " + port.description;
        }
        port.driver = property(devices, device, SPDRP_SERVICE);
        describeUsb(device.DevInst, port);
    }
    SetupDiDestroyDeviceInfoList(devices);
}

}  // namespace

std::vector<PortInfo> listPorts(const PortFolders&) {
    Ports ports(portNameLess);
    addRegistered(ports);
    addNamed(ports);
    describe(ports);
    std::vector<PortInfo> list;
    for (auto& [name, port] : ports) {
        list.push_back(std::move(port));
    }
    return list;
}

}  // namespace kxorbeta_if
