#include "link/port_list.h"
#include "link/usb_instance_id_win32.h"
#include "support/testing.h"

#include <windows.h>

namespace kxorbeta_if {
namespace {

TEST(UsbInstanceId, TellsTheIdsAndTheSerialNumberThatTheDeviceHas) {
    const struct {
        const char* id;
        std::uint16_t vendor, product;
        const char* serialNumber;
    } cases[] = {
        {R"(USB\VID_1A86&PID_55D3\5A1B012345)", 0x1A86, 0x55D3, "5A1B012345"},
        {R"(USB\VID_1a86&PID_7523\6&2C01DB97&0&2)", 0x1A86, 0x7523, ""},
        {R"(USB\VID_1FC9&PID_0083&MI_00\7&1F2E&0&0000)", 0x1FC9, 0x0083, ""},
        {R"(USB\VID_1FC9&PID_0083&MI_00\SOMETHING)", 0x1FC9, 0x0083, ""},
        {R"(FTDIBUS\VID_0403+PID_6001+A50285BIA\0000)", 0x0403, 0x6001, "A50285BI"},
        {R"(FTDIBUS\VID_0403+PID_6001\0000)", 0x0403, 0x6001, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        const auto usb = parseUsbInstanceId(c.id);
        ASSERT_TRUE(usb);
        EXPECT_EQ(usb->id, (UsbId{c.vendor, c.product}));
        EXPECT_EQ(usb->serialNumber, c.serialNumber);
    }
    for (const char* other :
         {"", R"(ACPI\PNP0501\1)", R"(USB\VID_1A86&PID_\x)", R"(USB\VID_1A8&PID_7523\x)", "VID_1A86&PID_7523"}) {
        EXPECT_FALSE(parseUsbInstanceId(other)) << other;
    }
}

/// An entry such as drivers make, as long as this lives.
class RegisteredPort {
  public:
    RegisteredPort(const char* device, const std::string& name) : device_(device) {
        RegCreateKeyExA(HKEY_LOCAL_MACHINE, R"(HARDWARE\DEVICEMAP\SERIALCOMM)", 0, nullptr, REG_OPTION_VOLATILE,
                        KEY_SET_VALUE, nullptr, &key_, nullptr);
        RegSetValueExA(key_, device_, 0, REG_SZ, reinterpret_cast<const BYTE*>(name.c_str()),
                       static_cast<DWORD>(name.size() + 1));
    }
    ~RegisteredPort() {
        RegDeleteValueA(key_, device_);
        RegCloseKey(key_);
    }
    RegisteredPort(const RegisteredPort&) = delete;
    RegisteredPort& operator=(const RegisteredPort&) = delete;

  private:
    const char* device_;
    HKEY key_ = nullptr;
};

TEST(PortListWin32, ListsWhatDriversHaveEnteredOnceAndInOrder) {
    const RegisteredPort first(R"(\Device\VelmoraTest1)", "COM4321");
    const RegisteredPort again(R"(\Device\VelmoraTest2)", "COM4321");
    const RegisteredPort second(R"(\Device\VelmoraTest3)", "COM9876");
    const RegisteredPort third(R"(\Device\VelmoraTest4)", "COM987654");
    const RegisteredPort other(R"(\Device\VelmoraTest5)", "COMPUTER1");
    std::string names;
    for (const PortInfo& port : listPorts()) {
        if (port.name.size() > 6) {  // this machine's own aside
            names += port.name + " " + port.path + " ";
        }
    }
    EXPECT_EQ(names, R"(COM4321 \\.\COM4321 COM9876 \\.\COM9876 COM987654 \\.\COM987654 )");
}

}  // namespace
}  // namespace kxorbeta_if
