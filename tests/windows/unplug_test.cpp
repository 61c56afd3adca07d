#include "windows/rig/program/rig_test.h"

SCENARIO(TwoModulesAreTwoPorts)
{
    Rig rig;
    rig.Plug();
    RigPlug plug{};
    plug.port = 1;
    rig.Plug(plug);
    Port first("COM5");
    Port second("COM6");
    constexpr DWORD get_comm_port = 0x08004008;
    DWORD number = 0;
    DWORD moved = 0;
    CHECK(
        DeviceIoControl(second.handle(), get_comm_port, nullptr, 0, &number, sizeof number, &moved, nullptr));
    CHECK_EQ(number, 6);
    rig.Feed("first", 0);
    rig.Feed("second", 1);
    CHECK_EQ(first.ReadAll(kEmptySentence.size() + 5), kEmptySentence + "first");
    CHECK_EQ(second.ReadAll(kEmptySentence.size() + 6), kEmptySentence + "second");
    // One goes, the other stays.
    rig.Unplug(0);
    CHECK(rig.Counters().device != 0); // until its last file is closed
    first.Close();
    rig.WaitGone(0);
    rig.Feed("still", 1);
    CHECK_EQ(second.ReadAll(5), "still");
}
