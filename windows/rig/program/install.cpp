// Puts the driver and the bus into Wine, as far as a user's machine would do it by itself.
#include "windows/rig/program/rig_test.h"

#include <newdev.h>
#include <setupapi.h>

namespace {

// What the class installer of the ports does on Windows when a device is new: it chooses a name.
void NamePort(const std::string& instance, const std::string& name)
{
    constexpr GUID ports = {0x4d36e978, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
    const HDEVINFO set = SetupDiCreateDeviceInfoList(&ports, nullptr);
    CHECK(set != INVALID_HANDLE_VALUE);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    const std::string path = "USB\\VID_1209&PID_0001&MI_00\\" + instance;
    CHECK(SetupDiCreateDeviceInfoA(set, path.c_str(), &ports, nullptr, nullptr, 0, &device));
    CHECK(SetupDiRegisterDeviceInfo(set, &device, 0, nullptr, nullptr, nullptr));
    const HKEY key = SetupDiCreateDevRegKeyA(set, &device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, nullptr, nullptr);
    CHECK(key != INVALID_HANDLE_VALUE);
    CHECK_EQ(RegSetValueExA(key, "PortName", 0, REG_SZ, reinterpret_cast<const BYTE*>(name.c_str()),
                            static_cast<DWORD>(name.size() + 1)),
             ERROR_SUCCESS);
    RegCloseKey(key);
    SetupDiDestroyDeviceInfoList(set);
}

void AddRootDevice(const std::string& hardware_id, const std::string& inf)
{
    constexpr GUID system_class = {
        0x4d36e97d, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
    const HDEVINFO set = SetupDiCreateDeviceInfoList(&system_class, nullptr);
    CHECK(set != INVALID_HANDLE_VALUE);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    CHECK(
        SetupDiCreateDeviceInfoA(set, "System", &system_class, nullptr, nullptr, DICD_GENERATE_ID, &device));
    const std::string ids = hardware_id + std::string(2, '\0');
    CHECK(SetupDiSetDeviceRegistryPropertyA(set, &device, SPDRP_HARDWAREID,
                                            reinterpret_cast<const BYTE*>(ids.data()),
                                            static_cast<DWORD>(ids.size())));
    CHECK(SetupDiCallClassInstaller(DIF_REGISTERDEVICE, set, &device));
    BOOL restart = FALSE;
    CHECK(UpdateDriverForPlugAndPlayDevicesA(nullptr, hardware_id.c_str(), inf.c_str(), 0, &restart));
    SetupDiDestroyDeviceInfoList(set);
}

// True when bus and driver were installed in an earlier session: the bus needs only be started.
bool StartAgain()
{
    const SC_HANDLE manager = OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    CHECK(manager != nullptr);
    const SC_HANDLE service = OpenServiceA(manager, "navox_bus", SERVICE_ALL_ACCESS);
    if (service != nullptr) {
        CHECK(StartServiceA(service, 0, nullptr) || GetLastError() == ERROR_SERVICE_ALREADY_RUNNING);
        CloseServiceHandle(service);
    }
    CloseServiceHandle(manager);
    return service != nullptr;
}

} // namespace

void Install(const std::string& folder)
{
    if (!StartAgain()) {
        NamePort("RIG0", "COM5");
        NamePort("RIG1", "COM6");
        CHECK(SetupCopyOEMInfA((folder + "\\navox.inf").c_str(), nullptr, SPOST_PATH, 0, nullptr, 0, nullptr,
                               nullptr));
        char own[MAX_PATH] = {};
        CHECK(GetModuleFileNameA(nullptr, own, sizeof own) != 0);
        const std::string path(own);
        AddRootDevice("root\\navox_bus", path.substr(0, path.rfind('\\')) + "\\navox_bus.inf");
    }
    WaitUntil("the bus is there", Rig::IsThere);
}
