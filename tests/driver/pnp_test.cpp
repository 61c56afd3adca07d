// Plug and Play: what each request does in each state, and what applications, the bus and the registry see of it.
#include "lifecycle.h"

#include "io/device.h"
#include "io/irp.h"
#include "io/names.h"
#include "wmi/wmi_manager.h"

#include <algorithm>

namespace navox_test {
namespace {

constexpr ULONG kGone = 0xFFFFFFFF; // the device object does not exist any more

const Lines kConfigures = {"GET_DESCRIPTOR_FROM_DEVICE", "GET_DESCRIPTOR_FROM_DEVICE",
                           "GET_DESCRIPTOR_FROM_DEVICE", "SELECT_CONFIGURATION", "SELECT_CONFIGURATION"};

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct Handled {
    int number;
    ULONG state;
    UCHAR minor;
    ULONG after;
    Lines story;
};

const Lines kRemoves = {"wmi deregister", "reports D3", "down IRP_MN_REMOVE_DEVICE with 0x0",
                        "\\Device\\quorlex0 deleted"};
const Lines kSurprises = {"interface disabled", "down IRP_MN_SURPRISE_REMOVAL"};

const std::vector<Handled> kHandled = {
    {1, STATE_NEVER_STARTED, IRP_MN_START_DEVICE, STATE_STARTED,
     Lines{"down IRP_MN_START_DEVICE"} + kConfigures +
         Lines{"reports D0", "interface enabled", "wmi register"}},
    {2, STATE_NEVER_STARTED, IRP_MN_REMOVE_DEVICE, kGone, kRemoves},
    {3,
     STATE_STARTED,
     IRP_MN_QUERY_REMOVE_DEVICE,
     STATE_REMOVE_PENDING,
     {"down IRP_MN_QUERY_REMOVE_DEVICE with 0x0"}},
    {4,
     STATE_STARTED,
     IRP_MN_QUERY_STOP_DEVICE,
     STATE_STOP_PENDING,
     {"down IRP_MN_QUERY_STOP_DEVICE with 0x0"}},
    {5, STATE_STARTED, IRP_MN_QUERY_CAPABILITIES, STATE_STARTED, {"down IRP_MN_QUERY_CAPABILITIES"}},
    {6, STATE_STARTED, IRP_MN_SURPRISE_REMOVAL, STATE_SURPRISE_REMOVED, kSurprises},
    {7, STATE_STOP_PENDING, IRP_MN_STOP_DEVICE, STATE_STOPPED, {"down IRP_MN_STOP_DEVICE with 0x0"}},
    {8, STATE_STOP_PENDING, IRP_MN_CANCEL_STOP_DEVICE, STATE_STARTED, {"down IRP_MN_CANCEL_STOP_DEVICE"}},
    {9, STATE_STOP_PENDING, IRP_MN_SURPRISE_REMOVAL, STATE_SURPRISE_REMOVED, kSurprises},
    {10, STATE_REMOVE_PENDING, IRP_MN_REMOVE_DEVICE, kGone, kRemoves},
    {11,
     STATE_REMOVE_PENDING,
     IRP_MN_CANCEL_REMOVE_DEVICE,
     STATE_STARTED,
     {"down IRP_MN_CANCEL_REMOVE_DEVICE"}},
    {12, STATE_REMOVE_PENDING, IRP_MN_SURPRISE_REMOVAL, STATE_SURPRISE_REMOVED, kSurprises},
    // The interface was enabled and WMI registered by the first start.
    {13, STATE_STOPPED, IRP_MN_START_DEVICE, STATE_STARTED,
     Lines{"down IRP_MN_START_DEVICE"} + kConfigures + Lines{"reports D0"}},
    {14, STATE_STOPPED, IRP_MN_SURPRISE_REMOVAL, STATE_SURPRISE_REMOVED, kSurprises},
    {15, STATE_SURPRISE_REMOVED, IRP_MN_REMOVE_DEVICE, kGone, kRemoves},
    // A start that fails late, and a module that goes while the system sleeps.
    {16, STATE_STARTED, IRP_MN_REMOVE_DEVICE, kGone, kRemoves},
    {17, STATE_POWER_QUERIED, IRP_MN_REMOVE_DEVICE, kGone, kRemoves},
    {18, STATE_POWER_QUERIED, IRP_MN_SURPRISE_REMOVAL, STATE_SURPRISE_REMOVED, kSurprises},
};

std::string RowText(int number, ULONG state, UCHAR minor)
{
    return "row " + std::to_string(number) + ": " + host::IopMinorName(IRP_MJ_PNP, minor) + " in " +
           StateText(state);
}

TEST(Pnp, RequestsThatTheDriverHandles)
{
    for (const Handled& row : kHandled) {
        SCOPED_TRACE(RowText(row.number, row.state, row.minor));
        const std::unique_ptr<Machine> machine = MachineIn(row.state);
        Rig& rig = machine->rig;
        Story story(rig);
        EXPECT_EQ(SendPnp(rig, row.minor), STATUS_SUCCESS);
        EXPECT_EQ(story.Take(), row.story);
        if (row.after == kGone) {
            EXPECT_EQ(rig.Node()->pdo->AttachedDevice, nullptr);
        } else {
            EXPECT_EQ(StateText(StateOf(rig)), StateText(row.after));
            EXPECT_EQ(PendingIn(rig), 0U);
        }
    }
}

bool IsHandled(ULONG state, UCHAR minor)
{
    return std::any_of(kHandled.begin(), kHandled.end(),
                       [=](const Handled& row) { return row.state == state && row.minor == minor; });
}

// Sent by the test itself: the PnP thread may be busy with a removal.
NTSTATUS SendRaw(PDEVICE_OBJECT top, UCHAR minor)
{
    DEVICE_CAPABILITIES capabilities{};
    const NTSTATUS status =
        host::IopSendAndWait(top, IRP_MJ_PNP, minor, STATUS_NOT_SUPPORTED,
                             [&](PIRP, PIO_STACK_LOCATION location) {
                                 if (minor == IRP_MN_QUERY_CAPABILITIES)
                                     location->Parameters.DeviceCapabilities.Capabilities = &capabilities;
                             })
            .Status;
    EXPECT_FALSE(capabilities.SurpriseRemovalOK);
    return status;
}

// What the bus driver answers by itself.
NTSTATUS BusAnswer(UCHAR minor)
{
    switch (minor) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_QUERY_CAPABILITIES:
    case IRP_MN_SURPRISE_REMOVAL: return STATUS_SUCCESS;
    default: return STATUS_NOT_SUPPORTED;
    }
}

// Sends every minor code that the driver does not handle in the state: each must reach the bus as it came, once, and
// leave no other mark. `inside`: requests that the driver has meanwhile.
int SendAllThatGoStraightDown(Machine& machine, ULONG state, ULONG inside = 0)
{
    int sent = 0;
    Rig& rig = machine.rig;
    const PDEVICE_OBJECT top = host::IopTopOf(rig.Node()->pdo);
    machine.filter.SetStays(true);
    Story story(rig);
    for (const int minor :
         {0,   1,   2,    3,    4,    5,    6,    7,    8,    9,    0xA,  0xB,  0xC,  0xD,
          0xE, 0xF, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x80, 0xFF}) {
        const auto code = static_cast<UCHAR>(minor);
        if (IsHandled(state, code))
            continue;
        SCOPED_TRACE(RowText(minor, state, code));
        EXPECT_EQ(SendRaw(top, code), BusAnswer(code));
        EXPECT_EQ(story.Take(), Lines{"down " + std::string(host::IopMinorName(IRP_MJ_PNP, code))});
        EXPECT_EQ(StateText(GetExtension(top)->DevicePnPState), StateText(state));
        EXPECT_EQ(PendingIn(rig), inside);
        ++sent;
    }
    machine.filter.SetStays(false);
    return sent;
}

TEST(Pnp, RequestsThatGoStraightDown)
{
    const std::map<ULONG, int> expected = {{STATE_NEVER_STARTED, 26},    {STATE_STARTED, 23},
                                           {STATE_STOP_PENDING, 25},     {STATE_REMOVE_PENDING, 25},
                                           {STATE_SURPRISE_REMOVED, 27}, {STATE_STOPPED, 26},
                                           {STATE_POWER_QUERIED, 26}};
    for (const auto& [state, count] : expected)
        EXPECT_EQ(SendAllThatGoStraightDown(*MachineIn(state), state), count) << StateText(state);
}

// STATE_REMOVED lasts as long as the removal waits for a request that is still inside: here a power request that
// the bus keeps.
TEST(Pnp, EverythingGoesStraightDownWhileARemovalWaits)
{
    Machine machine;
    Rig& rig = machine.rig;
    machine.filter.Hold(IRP_MJ_POWER, IRP_MN_SET_POWER);
    const PowerRequest power(rig, IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0);
    const host::PnpNodePtr node = rig.Node();
    host::ThreadHandle removal = rig.kernel.Spawn(
        "removal", [&] { EXPECT_EQ(host::PnpManager::Current().Remove(node), STATUS_SUCCESS); });
    EXPECT_FALSE(rig.kernel.RunUntil([&] { return removal.Done(); }, kSecond));
    EXPECT_EQ(SendAllThatGoStraightDown(machine, STATE_REMOVED, 0), 28);
    machine.filter.Release();
    removal.Join();
    EXPECT_EQ(node->pdo->AttachedDevice, nullptr);
    EXPECT_EQ(power.Wait(), STATUS_SUCCESS);
}

} // namespace
} // namespace navox_test
