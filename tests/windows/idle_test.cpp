#include "windows/rig/program/rig_test.h"

#include <setupapi.h>

namespace {

// Sets EnableSelectiveSuspend in the driver key of the first port; it is read when a device arrives.
void EnableSuspend(DWORD value)
{
    const HDEVINFO set = SetupDiGetClassDevsA(nullptr, "USB", nullptr, DIGCF_ALLCLASSES);
    CHECK(set != INVALID_HANDLE_VALUE);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    char id[256] = {};
    for (DWORD i = 0; std::string(id).find("RIG0") == std::string::npos; ++i) {
        CHECK(SetupDiEnumDeviceInfo(set, i, &device));
        CHECK(SetupDiGetDeviceInstanceIdA(set, &device, id, sizeof id, nullptr));
    }
    const HKEY key = SetupDiOpenDevRegKey(set, &device, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_ALL_ACCESS);
    CHECK(key != INVALID_HANDLE_VALUE);
    CHECK_EQ(RegSetValueExA(key, "EnableSelectiveSuspend", 0, REG_DWORD,
                            reinterpret_cast<const BYTE*>(&value), sizeof value),
             ERROR_SUCCESS);
    RegCloseKey(key);
    SetupDiDestroyDeviceInfoList(set);
}

} // namespace

SCENARIO(SuspendsWhileNobodyHasItOpen)
{
    constexpr unsigned d2 = 3; // of the bus's states for the three sleeps the last above D3
    Rig rig;
    rig.Plug();
    EnableSuspend(1);
    rig.Unplug();
    rig.WaitGone();
    rig.Plug();
    EnableSuspend(0); // for those that come after
    WaitUntil("the driver asks to be idle", [&] { return rig.Counters().idle_requested != 0; });
    rig.SuspendIdle();
    CHECK_EQ(rig.Counters().power, d2);
    WaitUntil("the module is suspended", [&] { return rig.Counters().suspended != 0; });
    // An open brings it back.
    Port port("COM5");
    WaitUntil("the module is awake", [&] { return rig.Counters().suspended == 0; });
    CHECK_EQ(rig.Counters().idle_requested, 0);
    rig.Feed("awake");
    CHECK_EQ(port.ReadAll(kEmptySentence.size() + 5), kEmptySentence + "awake");
}
