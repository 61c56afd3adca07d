#include "windows/rig/program/rig_test.h"

SCENARIO(UnpluggedInAPendingRead)
{
    Rig rig;
    for (int round = 0; round < 2; ++round) { // the second time under the same name
        rig.Plug();
        Port port("COM5", FILE_FLAG_OVERLAPPED);
        PendingRead empty(port, static_cast<DWORD>(kEmptySentence.size()));
        CHECK_EQ(empty.Wait(), 0);
        PendingRead pending(port, 100);
        CHECK(!pending.Ended());
        rig.Unplug();
        CHECK_EQ(pending.Wait(), ERROR_OPERATION_ABORTED);
        PendingRead later(port, 100);
        CHECK_EQ(later.Wait(), ERROR_ACCESS_DENIED); // STATUS_DELETE_PENDING
        // The device stays until its last file is closed.
        CHECK(rig.Counters().device != 0);
        port.Close();
        rig.WaitGone();
        CHECK_EQ(rig.Counters().wmi_registered, 0);
    }
}

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
    first.Close();
    rig.WaitGone(0);
    rig.Feed("still", 1);
    CHECK_EQ(second.ReadAll(5), "still");
}
