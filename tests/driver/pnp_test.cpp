// Plug and Play: what each request does in each state, and what applications, the bus and the registry see of it.
#include "lifecycle.h"

#include "include/navox/gps_ioctl.h"
#include "io/device.h"
#include "io/irp.h"
#include "io/names.h"
#include "wmi/wmi_manager.h"

#include <initguid.h>
#include <ntddser.h>

#include <algorithm>

namespace navox_test {
namespace {

constexpr ULONG kGone = 0xFFFFFFFF; // the device object does not exist any more

const Lines kConfigures = {"GET_DESCRIPTOR_FROM_DEVICE", "GET_DESCRIPTOR_FROM_DEVICE",
                           "GET_DESCRIPTOR_FROM_DEVICE", "SELECT_CONFIGURATION", "SELECT_CONFIGURATION"};

struct Handled {
    ULONG state;
    UCHAR minor;
    ULONG after;
    Lines story;
};

const Lines kRemoves = {"wmi deregister", "reports D3", "down IRP_MN_REMOVE_DEVICE with 0x0",
                        "\\Device\\quorlex0 deleted"};
const Lines kSurprises = {"interface disabled", "down IRP_MN_SURPRISE_REMOVAL"};
const Lines kStarts = Lines{"down IRP_MN_START_DEVICE"} + kConfigures + Lines{"reports D0"};

// The request goes down and nothing else is seen of it; a query and what follows from it go with a status.
Handled OnlyDown(ULONG state, UCHAR minor, ULONG after, const std::string& with = {})
{
    return {state, minor, after, {"down " + std::string(host::IopMinorName(IRP_MJ_PNP, minor)) + with}};
}

std::vector<Handled> AllHandled()
{
    const std::string success = " with 0x0";
    std::vector<Handled> rows = {
        {STATE_NEVER_STARTED, IRP_MN_START_DEVICE, STATE_STARTED,
         kStarts + Lines{"interface enabled", "wmi register"}},
        // The interface was enabled and WMI registered by the first start.
        {STATE_STOPPED, IRP_MN_START_DEVICE, STATE_STARTED, kStarts},
        OnlyDown(STATE_STARTED, IRP_MN_QUERY_REMOVE_DEVICE, STATE_REMOVE_PENDING, success),
        OnlyDown(STATE_STARTED, IRP_MN_QUERY_STOP_DEVICE, STATE_STOP_PENDING, success),
        OnlyDown(STATE_STARTED, IRP_MN_QUERY_CAPABILITIES, STATE_STARTED),
        OnlyDown(STATE_STOP_PENDING, IRP_MN_STOP_DEVICE, STATE_STOPPED, success),
        OnlyDown(STATE_STOP_PENDING, IRP_MN_CANCEL_STOP_DEVICE, STATE_STARTED),
        OnlyDown(STATE_REMOVE_PENDING, IRP_MN_CANCEL_REMOVE_DEVICE, STATE_STARTED),
    };
    // Started: a start that fails late. Asked for its power: a module that goes while the system sleeps.
    for (const ULONG state : {STATE_NEVER_STARTED, STATE_STARTED, STATE_REMOVE_PENDING,
                              STATE_SURPRISE_REMOVED, STATE_POWER_QUERIED})
        rows.push_back({state, IRP_MN_REMOVE_DEVICE, kGone, kRemoves});
    for (const ULONG state :
         {STATE_STARTED, STATE_STOP_PENDING, STATE_STOPPED, STATE_REMOVE_PENDING, STATE_POWER_QUERIED})
        rows.push_back({state, IRP_MN_SURPRISE_REMOVAL, STATE_SURPRISE_REMOVED, kSurprises});
    return rows;
}
const std::vector<Handled> kHandled = AllHandled();

std::string RowText(ULONG state, UCHAR minor)
{
    return std::string(host::IopMinorName(IRP_MJ_PNP, minor)) + " (" + std::to_string(minor) + ") in " +
           StateText(state);
}

TEST(Pnp, RequestsThatTheDriverHandles)
{
    for (const Handled& row : kHandled) {
        SCOPED_TRACE(RowText(row.state, row.minor));
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
NTSTATUS SendRaw(PDEVICE_OBJECT device, UCHAR minor)
{
    DEVICE_CAPABILITIES capabilities{};
    const IO_STATUS_BLOCK answer = host::IopSendAndWait(
        device, IRP_MJ_PNP, minor, STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
            if (minor == IRP_MN_QUERY_CAPABILITIES)
                location->Parameters.DeviceCapabilities.Capabilities = &capabilities;
        });
    EXPECT_FALSE(capabilities.SurpriseRemovalOK);
    return answer.Status;
}

// Sends every minor code that the driver does not handle in the state: each must reach the bus as it came, once, come
// back with the bus's answer, and leave no other mark.
void SendAllThatGoStraightDown(Machine& machine, ULONG state)
{
    Rig& rig = machine.rig;
    const PDEVICE_OBJECT top = host::IopTopOf(rig.Node()->pdo);
    machine.filter.SetStays(true);
    Story story(rig);
    std::vector<int> minors = {0x80, 0xFF};
    for (int minor = 0; minor <= 0x19; ++minor)
        minors.push_back(minor);
    for (const int minor : minors) {
        const auto code = static_cast<UCHAR>(minor);
        if (IsHandled(state, code))
            continue;
        SCOPED_TRACE(RowText(state, code));
        const NTSTATUS status = SendRaw(top, code);
        EXPECT_EQ(story.Take(), Lines{"down " + std::string(host::IopMinorName(IRP_MJ_PNP, code))});
        EXPECT_EQ(StateText(GetExtension(top)->DevicePnPState), StateText(state));
        EXPECT_EQ(PendingIn(rig), 0U);
        EXPECT_EQ(status, SendRaw(GetExtension(top)->LowerDeviceObject, code));
        story.Take();
    }
    machine.filter.SetStays(false);
}

TEST(Pnp, RequestsThatGoStraightDown)
{
    for (const ULONG state : {STATE_NEVER_STARTED, STATE_STARTED, STATE_STOP_PENDING, STATE_STOPPED,
                              STATE_REMOVE_PENDING, STATE_SURPRISE_REMOVED, STATE_POWER_QUERIED})
        SendAllThatGoStraightDown(*MachineIn(state), state);
}

// STATE_REMOVED lasts as long as the removal waits for a request that is still inside: here a power request that
// the bus keeps. Others of its type wait behind it.
TEST(Pnp, EverythingGoesStraightDownWhileARemovalWaits)
{
    const std::pair<POWER_STATE_TYPE, std::vector<POWER_STATE_TYPE>> rows[] = {
        {SystemPowerState, {DevicePowerState}}, {DevicePowerState, {SystemPowerState, kUnknownPowerType}}};
    for (const auto& [type, others] : rows) {
        SCOPED_TRACE(type);
        Machine machine;
        Rig& rig = machine.rig;
        machine.filter.Hold(type == SystemPowerState ? "IRP_MN_SET_POWER S0" : "IRP_MN_SET_POWER D0");
        const PowerRequest power(rig, IRP_MN_SET_POWER, type, 1);
        const host::PnpNodePtr node = rig.Node();
        host::ThreadHandle removal = rig.kernel.Spawn(
            "removal", [&] { EXPECT_EQ(host::PnpManager::Current().Remove(node), STATUS_SUCCESS); });
        EXPECT_FALSE(rig.kernel.RunUntil([&] { return removal.Done(); }, kSecond));
        SendAllThatGoStraightDown(machine, STATE_REMOVED);
        ExpectEveryPowerRequestFails(rig, others);
        machine.filter.Release();
        removal.Join();
        EXPECT_EQ(node->pdo->AttachedDevice, nullptr);
        (void)power.Wait();
    }
}

// A start that fails ------------------------------------------------------------------------------------------

struct FailedStart {
    std::string what;
    std::function<void(Machine&)> arm;
    NTSTATUS status;
    ULONG after;
    std::size_t requests; // on the bus
    bool interface_enabled;
};

FailedStart LateFault(host::FaultPoint point, const char* detail, bool interface_enabled)
{
    const auto arm = [=](Machine& machine) { machine.rig.kernel.Faults().Arm(point, {.detail = detail}); };
    return {
        host::FaultPointName(point), arm, STATUS_INSUFFICIENT_RESOURCES, STATE_STARTED, 5, interface_enabled};
}

std::vector<FailedStart> AllFailedStarts()
{
    using enum host::FaultPoint;
    const auto fail_below = [](Machine& machine) {
        machine.filter.Fail("IRP_MN_START_DEVICE", STATUS_NO_SUCH_DEVICE);
    };
    std::vector<FailedStart> rows = {
        {"the bus's start", fail_below, STATUS_NO_SUCH_DEVICE, STATE_NEVER_STARTED, 0, false}};
    for (std::size_t nth = 1; nth <= kConfigures.size(); ++nth)
        rows.push_back({"bus request " + std::to_string(nth),
                        [nth](Machine& machine) {
                            machine.rig.kernel.Faults().Arm(
                                BusRequest, {.nth = nth, .fault = {.status = STATUS_DEVICE_DATA_ERROR}});
                        },
                        STATUS_DEVICE_DATA_ERROR, STATE_NEVER_STARTED, nth, false});
    // The buffer for the head of the configuration, and the URB that selects it.
    for (const auto& [tag, nth, requests] : {std::tuple("NxDs", 2U, 1U), std::tuple("USBD", 1U, 3U)})
        rows.push_back({tag,
                        [tag = tag, nth = nth](Machine& machine) {
                            machine.rig.kernel.Faults().Arm(PoolAllocate, {.detail = tag, .nth = nth});
                        },
                        STATUS_INSUFFICIENT_RESOURCES, STATE_NEVER_STARTED, requests, false});
    rows.push_back(LateFault(DeviceInterface, "IoSetDeviceInterfaceState", false));
    rows.push_back(LateFault(WmiRegister, "", true));
    return rows;
}
const std::vector<FailedStart> kFailedStarts = AllFailedStarts();

RigOptions WithSuspend()
{
    return {.settings = {{"EnableSelectiveSuspend", 1}}};
}

bool InterfaceEnabled()
{
    return !host::nt::Interfaces(GUID_DEVINTERFACE_COMPORT).empty();
}

// Whether the registry and the name space show the port.
bool PortVisible(Rig& rig)
{
    const auto& registry = rig.Registry();
    const auto key = registry.Open(u"\\Registry\\Machine\\Hardware\\DeviceMap\\SERIALCOMM");
    const bool listed = key != nullptr && !registry.Values(key).empty();
    Port port;
    const bool linked = rig.TryOpen(&port) != STATUS_OBJECT_NAME_NOT_FOUND;
    EXPECT_EQ(listed, linked);
    return linked;
}

TEST(Pnp, AStartThatFailsLeavesWhatItHadReached)
{
    for (const FailedStart& row : kFailedStarts) {
        SCOPED_TRACE(row.what);
        const std::unique_ptr<Machine> machine = MachineIn(STATE_NEVER_STARTED, WithSuspend());
        Rig& rig = machine->rig;
        rig.TakeBusLog();
        row.arm(*machine);
        EXPECT_EQ(SendPnp(rig, IRP_MN_START_DEVICE), row.status);
        EXPECT_EQ(StateText(StateOf(rig)), StateText(row.after));
        EXPECT_EQ(rig.TakeBusLog().size(), row.requests);
        EXPECT_EQ(InterfaceEnabled(), row.interface_enabled);
        EXPECT_TRUE(host::WmiManager::Current().Blocks().empty());
        EXPECT_EQ(PendingIn(rig), 0U);
        // Nobody looks whether the device is idle.
        Story story(rig);
        rig.RunFor(20 * kSecond);
        EXPECT_EQ(story.Take(), Lines{});
        if (row.after == STATE_NEVER_STARTED) {
            machine->filter.Release();
            EXPECT_EQ(SendPnp(rig, IRP_MN_START_DEVICE), STATUS_SUCCESS);
            ExpectStream(rig.OpenStreaming());
        }
        EXPECT_EQ(SendPnp(rig, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS);
        EXPECT_FALSE(PortVisible(rig));
    }
}

// The system takes a device away that does not start; a stopped one is surprised first.
TEST(Pnp, AModuleThatDoesNotStartIsRemoved)
{
    for (const FailedStart& row : kFailedStarts) {
        SCOPED_TRACE(row.what);
        Machine machine({.plug = false});
        row.arm(machine);
        machine.rig.Plug();
        EXPECT_EQ(machine.rig.Node()->state, host::PnpState::Reported);
        EXPECT_EQ(machine.rig.Node()->pdo->AttachedDevice, nullptr);
        EXPECT_FALSE(PortVisible(machine.rig));
        EXPECT_FALSE(InterfaceEnabled());
    }
}

TEST(Pnp, ARebalanceThatFailsToRestartTakesTheDeviceAway)
{
    for (const FailedStart& row : kFailedStarts) {
        if (row.after != STATE_NEVER_STARTED)
            continue; // those steps belong to the first start
        SCOPED_TRACE(row.what);
        Machine machine;
        Rig& rig = machine.rig;
        Port port = rig.Open();
        Story story(rig);
        row.arm(machine);
        EXPECT_EQ(host::PnpManager::Current().Rebalance(rig.Node()), row.status);
        const Lines lines = story.Take();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(Lines(lines.end() - 2, lines.end()), kSurprises);
        EXPECT_EQ(StateText(StateOf(rig)), "STATE_SURPRISE_REMOVED");
        // The remove waits for the handle.
        port.Close();
        host::PnpManager::Current().Settle();
        EXPECT_EQ(rig.Node()->pdo->AttachedDevice, nullptr);
        EXPECT_FALSE(PortVisible(rig));
    }
}

// Capabilities ------------------------------------------------------------------------------------------------

TEST(Pnp, CapabilitiesChooseTheIdleState)
{
    struct {
        DEVICE_POWER_STATE s1, s2, s3, idle;
    } const rows[] = {
        {PowerDeviceD3, PowerDeviceD3, PowerDeviceD3, PowerDeviceD2},
        {PowerDeviceD1, PowerDeviceD3, PowerDeviceD2, PowerDeviceD2},
        {PowerDeviceD2, PowerDeviceD1, PowerDeviceD3, PowerDeviceD1},
        {PowerDeviceD0, PowerDeviceD3, PowerDeviceD3, PowerDeviceD2},
        {PowerDeviceD2, PowerDeviceD2, PowerDeviceD1, PowerDeviceD1},
        {PowerDeviceD1, PowerDeviceD2, PowerDeviceD0, PowerDeviceD2},
        {PowerDeviceUnspecified, PowerDeviceUnspecified, PowerDeviceUnspecified, PowerDeviceD2},
        {PowerDeviceD1, PowerDeviceUnspecified, PowerDeviceD3, PowerDeviceD2},
    };
    for (const auto& row : rows) {
        RigOptions options;
        options.port.device_states = {PowerDeviceUnspecified, PowerDeviceD0, row.s1, row.s2, row.s3,
                                      PowerDeviceD3,          PowerDeviceD3};
        SCOPED_TRACE(::testing::PrintToString(options.port.device_states));
        Rig rig(options);
        const DEVICE_EXTENSION& inside = Inside(rig);
        EXPECT_EQ(inside.IdlePowerState, row.idle);
        EXPECT_EQ(std::vector(std::begin(inside.DeviceStateMap), std::end(inside.DeviceStateMap)),
                  options.port.device_states);
        EXPECT_TRUE(inside.CapabilitiesReceived);
        EXPECT_FALSE(inside.Capabilities.SurpriseRemovalOK);
        // The asker sees that the module may be pulled.
        EXPECT_TRUE(rig.Node()->capabilities.SurpriseRemovalOK);
        EXPECT_TRUE(rig.Node()->capabilities.Removable);
    }
}

TEST(Pnp, CapabilitiesThatTheBusFailsChangeNothing)
{
    const std::unique_ptr<Machine> machine = MachineIn(STATE_NEVER_STARTED);
    Rig& rig = machine->rig;
    ASSERT_EQ(SendPnp(rig, IRP_MN_START_DEVICE), STATUS_SUCCESS);
    machine->filter.Fail("IRP_MN_QUERY_CAPABILITIES", STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(SendPnp(rig, IRP_MN_QUERY_CAPABILITIES), STATUS_NO_SUCH_DEVICE);
    EXPECT_FALSE(Inside(rig).CapabilitiesReceived);
    EXPECT_EQ(Inside(rig).DeviceStateMap[PowerSystemWorking], PowerDeviceUnspecified);
    EXPECT_EQ(PendingIn(rig), 0U);
}

// Queries and their cancellation --------------------------------------------------------------------------------

struct Query {
    UCHAR query, cancel;
    ULONG pending;
};
constexpr Query kQueries[] = {
    {IRP_MN_QUERY_STOP_DEVICE, IRP_MN_CANCEL_STOP_DEVICE, STATE_STOP_PENDING},
    {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_CANCEL_REMOVE_DEVICE, STATE_REMOVE_PENDING}};

TEST(Pnp, AQueryStopsReadingAndItsCancelDoesNotStartItAgain)
{
    for (const Query& row : kQueries) {
        SCOPED_TRACE(host::IopMinorName(IRP_MJ_PNP, row.query));
        Machine machine;
        Rig& rig = machine.rig;
        Port port = rig.OpenStreaming();
        Story story(rig);
        EXPECT_EQ(SendPnp(rig, row.query), STATUS_SUCCESS);
        const host::UsbRequest last = host::UsbBus::Current().Log().back();
        EXPECT_EQ(DescribeRequest(last), "in 82");
        EXPECT_TRUE(last.done);
        EXPECT_EQ(last.usbd_status, USBD_STATUS_CANCELED);
        EXPECT_EQ(SendPnp(rig, row.cancel), STATUS_SUCCESS);
        EXPECT_EQ(story.Take(),
                  (Lines{"down " + std::string(host::IopMinorName(IRP_MJ_PNP, row.query)) + " with 0x0",
                         "down " + std::string(host::IopMinorName(IRP_MJ_PNP, row.cancel))}));
        // A further open does not start it either: it is not the first.
        Port second = rig.Open();
        rig.RunFor(20 * kSecond);
        EXPECT_EQ(story.Take(), Lines{"OpenHandles = 2"});
        port.Close();
        second.Close();
        ExpectStream(rig.OpenStreaming());
    }
}

// The way out is the application's: reading has stopped, so no data will end what waits.
TEST(Pnp, AQueryWaitsForWhatIsInside)
{
    const auto read = [](Port& port) { return port.StartRead(4096); };
    const auto wait = [](Port& port) {
        EXPECT_EQ(port.SetWaitMask(SERIAL_EV_RXCHAR), STATUS_SUCCESS);
        return port.StartWait();
    };
    const auto timed_read = [](Port& port) {
        EXPECT_EQ(port.SetTimeouts(0, 0, 1'000'000), STATUS_SUCCESS);
        return port.StartRead(4096);
    };
    const auto cancel = [](Port& port) { port.CancelIo(); };
    struct {
        const char* what;
        std::function<host::nt::Request(Port&)> hold;
        std::function<void(Port&)> end; // null: it ends by itself
    } const rows[] = {{"a read that is cancelled", read, cancel},
                      {"a read whose handle is closed", read, [](Port& port) { port.Close(); }},
                      {"a wait that is cancelled", wait, cancel},
                      {"a read that times out", timed_read, nullptr}};
    for (const Query& query : kQueries) {
        for (const auto& row : rows) {
            SCOPED_TRACE(StateText(query.pending) + ", " + row.what);
            Machine machine;
            Rig& rig = machine.rig;
            Port port = rig.OpenStreaming();
            const host::nt::Request held = row.hold(port);
            host::ThreadHandle asking =
                rig.kernel.Spawn("query", [&] { EXPECT_EQ(SendPnp(rig, query.query), STATUS_SUCCESS); });
            rig.RunFor(600 * kSecond);
            EXPECT_FALSE(asking.Done());
            EXPECT_EQ(held.Status(), STATUS_PENDING);
            EXPECT_EQ(StateText(StateOf(rig)), StateText(query.pending));
            if (row.end)
                row.end(port);
            asking.Join();
            EXPECT_EQ(held.Wait().status, row.end ? STATUS_CANCELLED : STATUS_TIMEOUT);
        }
    }
}

TEST(Pnp, AQueryOrItsCancelThatTheBusFailsLeavesTheStatePending)
{
    RigOptions options;
    // The bus is not allowed to fail a cancel. This one does.
    options.kernel.excuses = {{.rule = host::Rule::PnpMayNotFail, .reason = "a bus that breaks the rules"}};
    for (const Query& row : kQueries) {
        SCOPED_TRACE(StateText(row.pending));
        Machine machine(options);
        Rig& rig = machine.rig;
        machine.filter.Fail(host::IopMinorName(IRP_MJ_PNP, row.query), STATUS_UNSUCCESSFUL);
        machine.filter.Fail(host::IopMinorName(IRP_MJ_PNP, row.cancel), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(SendPnp(rig, row.query), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(StateText(StateOf(rig)), StateText(row.pending));
        EXPECT_EQ(SendPnp(rig, row.cancel), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(StateText(StateOf(rig)), StateText(row.pending));
        EXPECT_EQ(PendingIn(rig), 0U);
        machine.filter.Release();
        EXPECT_EQ(SendPnp(rig, row.cancel), STATUS_SUCCESS);
        EXPECT_EQ(StateText(StateOf(rig)), "STATE_STARTED");
    }
}

TEST(Pnp, ADisableIsRefusedWhileAHandleIsOpenAndGoesThroughAfterwards)
{
    Machine machine;
    Rig& rig = machine.rig;
    host::PnpManager& pnp = host::PnpManager::Current();
    Port port = rig.Open();
    // The driver does not refuse; the system does, and cancels.
    Story story(rig);
    EXPECT_EQ(pnp.Disable(rig.Node()), STATUS_DEVICE_BUSY);
    EXPECT_EQ(story.Take(),
              (Lines{"down IRP_MN_QUERY_REMOVE_DEVICE with 0x0", "down IRP_MN_CANCEL_REMOVE_DEVICE"}));
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    port.Close();
    EXPECT_EQ(pnp.Disable(rig.Node()), STATUS_SUCCESS);
    EXPECT_FALSE(PortVisible(rig));
    EXPECT_FALSE(InterfaceEnabled());
    EXPECT_EQ(IoGetConfigurationInformation()->SerialCount, 0xFFFFFFFF);
}

// Stop and restart ----------------------------------------------------------------------------------------------

TEST(Pnp, ARebalanceSetsTheModuleUpAnewAtTheNextFirstOpen)
{
    Machine machine;
    Rig& rig = machine.rig;
    Port port = rig.OpenStreaming();
    Story story(rig);
    EXPECT_EQ(host::PnpManager::Current().Rebalance(rig.Node()), STATUS_SUCCESS);
    const Lines lines = story.Take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "reports D0"), 1);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "SELECT_CONFIGURATION"), 2);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "interface enabled"), 0);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "wmi register"), 0);
    EXPECT_TRUE(InterfaceEnabled());
    EXPECT_EQ(host::WmiManager::Current().Blocks().size(), 4U);
    // The start does not start the reader.
    rig.RunFor(20 * kSecond);
    EXPECT_EQ(story.Take(), Lines{});
    EXPECT_TRUE(Inside(rig).FirstOpenSinceStart);
    port.Close();
    port = rig.OpenStreaming();
    EXPECT_FALSE(Inside(rig).FirstOpenSinceStart);
    ExpectStream(port);
}

// Surprise removal ----------------------------------------------------------------------------------------------

TEST(Pnp, PullingTheModuleEndsWhatWaitsAndTheLastCloseRemovesTheDevice)
{
    Machine machine;
    Rig& rig = machine.rig;
    Port first = rig.OpenStreaming();
    Port second = rig.Open();
    EXPECT_EQ(first.SetWaitMask(SERIAL_EV_ERR), STATUS_SUCCESS);
    const std::vector<host::nt::Request> waiting = {first.StartRead(4096), first.StartRead(10),
                                                    first.StartRead(10), first.StartWait(),
                                                    second.StartRead(4096)};
    const host::PnpNodePtr node = rig.Node();
    Story story(rig);
    rig.Unplug();
    EXPECT_EQ(story.Take(), kSurprises);
    for (const host::nt::Request& request : waiting)
        EXPECT_EQ(request.Status(), STATUS_CANCELLED);
    EXPECT_FALSE(InterfaceEnabled());

    // Nothing that an application asks for is kept.
    EXPECT_EQ(first.Read(1).status, STATUS_DELETE_PENDING);
    EXPECT_EQ(second.StartWait().Wait().status, STATUS_DELETE_PENDING);
    Port third;
    EXPECT_EQ(host::nt::File::Open("\\Device\\quorlex0", &third), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(StateText(StateOf(rig)), "STATE_SURPRISE_REMOVED");
    EXPECT_EQ(story.Take(), Lines{});
    first.Close();
    host::PnpManager::Current().Settle();
    EXPECT_EQ(story.Take(), Lines{"OpenHandles = 1"});
    EXPECT_EQ(node->state, host::PnpState::SurpriseRemoved);
    second.Close();
    host::PnpManager::Current().Settle();
    EXPECT_EQ(story.Take(), (Lines{"OpenHandles = 0", "class"} + kRemoves));
    EXPECT_EQ(node->state, host::PnpState::Removed);
    EXPECT_FALSE(PortVisible(rig));
    EXPECT_EQ(IoGetConfigurationInformation()->SerialCount, 0xFFFFFFFF);
}

} // namespace
} // namespace navox_test
