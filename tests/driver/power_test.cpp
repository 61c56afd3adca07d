// Power: what each request does in each state, and what the bus and applications see of sleep and resume.
#include "lifecycle.h"

#include "po/power_manager.h"
#include "usbd/usb_port.h"

#include <algorithm>

namespace navox_test {
namespace {

using host::PowerManager;

// The module's line is conditioned, and it is told to stream.
const Lines kSetUpLine = {"CLEAR_COMM_FEATURE",       "GET_COMM_FEATURE",    "SET_COMM_FEATURE(3)",
                          "GET_COMM_FEATURE",         "SET_COMM_FEATURE(2)", "reset 82",
                          "SET_CONTROL_LINE_STATE(3)"};
const Lines kStartStream = {"reset 02", "reset 82", "out 02 AT*Q7GPSNPD\r\n", "in 82", "in 82"};
const Lines kDrain = {"in 81", "in 82"};

// Transfers of the reader come one after the other once it runs; how many is not the point.
Lines WithoutRepeats(Lines lines)
{
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

RigOptions WithFastResume(std::uint32_t value = 1)
{
    return {.settings = {{"EnableFR", value}}};
}

// What a test of the verifier would report, and the test brings about.
RigOptions Excusing(RigOptions options, host::Rule rule, std::string reason)
{
    options.kernel.excuses.push_back({.rule = rule, .reason = std::move(reason)});
    return options;
}

// The gate ----------------------------------------------------------------------------------------------------

TEST(Power, EveryRequestFailsUnlessTheDeviceIsStarted)
{
    for (const ULONG state : {STATE_NEVER_STARTED, STATE_STOP_PENDING, STATE_STOPPED, STATE_REMOVE_PENDING,
                              STATE_SURPRISE_REMOVED}) {
        SCOPED_TRACE(StateText(state));
        const std::unique_ptr<Machine> machine = MachineIn(state);
        ExpectEveryPowerRequestFails(machine->rig);
        EXPECT_EQ(StateText(StateOf(machine->rig)), StateText(state));
        EXPECT_EQ(PendingIn(machine->rig), 0U);
    }
}

struct Request {
    UCHAR minor;
    POWER_STATE_TYPE type;
    ULONG state;
    DEVICE_POWER_STATE after; // of the device
    Lines story;
};

// A device that is told to sleep says so and is drained before the bus hears of it.
Request SetDeviceTo(DEVICE_POWER_STATE state)
{
    const std::string name = "D" + std::to_string(state - PowerDeviceD0);
    return {IRP_MN_SET_POWER, DevicePowerState, ULONG(state), state,
            Lines{"reports " + name} + kDrain + Lines{"down IRP_MN_SET_POWER " + name}};
}

const std::vector<Request> kRequests = {
    {IRP_MN_QUERY_POWER, SystemPowerState, PowerSystemSleeping3, PowerDeviceD0,
     Lines{"down IRP_MN_QUERY_POWER S3", "down IRP_MN_QUERY_POWER D2"}},
    {IRP_MN_QUERY_POWER, DevicePowerState, PowerDeviceD2, PowerDeviceD0, Lines{"down IRP_MN_QUERY_POWER D2"}},
    {IRP_MN_SET_POWER, SystemPowerState, PowerSystemSleeping3, PowerDeviceD2,
     Lines{"down IRP_MN_SET_POWER S3"} + SetDeviceTo(PowerDeviceD2).story},
    SetDeviceTo(PowerDeviceD1),
    SetDeviceTo(PowerDeviceD2),
    SetDeviceTo(PowerDeviceD3),
    {IRP_MN_SET_POWER, SystemPowerState, PowerSystemWorking, PowerDeviceD0,
     Lines{"down IRP_MN_SET_POWER S0", "down IRP_MN_SET_POWER D0", "reports D0"}},
    {IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0, PowerDeviceD0,
     Lines{"down IRP_MN_SET_POWER D0", "reports D0"}},
    {IRP_MN_POWER_SEQUENCE, SystemPowerState, PowerSystemWorking, PowerDeviceD0,
     Lines{"down IRP_MN_POWER_SEQUENCE S0"}},
    {IRP_MN_POWER_SEQUENCE, DevicePowerState, PowerDeviceD0, PowerDeviceD0,
     Lines{"down IRP_MN_POWER_SEQUENCE D0"}},
};

// In STATE_STARTED and in STATE_POWER_QUERIED the same is done; a query leaves the second, and only a device that
// goes up, or stays, the first.
TEST(Power, RequestsThatTheDriverHandles)
{
    for (const ULONG state : {STATE_STARTED, STATE_POWER_QUERIED}) {
        for (const Request& row : kRequests) {
            SCOPED_TRACE(row.story.front() + " in " + StateText(state));
            const std::unique_ptr<Machine> machine = MachineIn(state);
            Rig& rig = machine->rig;
            Story story(rig);
            const NTSTATUS status = PowerRequest(rig, row.minor, row.type, row.state).Wait();
            EXPECT_EQ(status, row.minor == IRP_MN_POWER_SEQUENCE ? STATUS_NOT_SUPPORTED : STATUS_SUCCESS);
            EXPECT_EQ(story.Take(), row.story);
            const bool raised = row.minor == IRP_MN_SET_POWER && row.after == PowerDeviceD0;
            const ULONG after = row.minor == IRP_MN_QUERY_POWER ? STATE_POWER_QUERIED : state;
            EXPECT_EQ(StateText(StateOf(rig)), StateText(raised ? STATE_STARTED : after));
            EXPECT_EQ(Inside(rig).DevicePowerState, row.after);
            EXPECT_EQ(rig.usb_port->PowerState(), row.after);
            EXPECT_EQ(PendingIn(rig), 0U);
        }
    }
}

TEST(Power, RequestsOfUnknownKindsGoStraightDown)
{
    struct {
        UCHAR minor;
        POWER_STATE_TYPE type;
        const char* name;
    } const rows[] = {
        {4, SystemPowerState, "down unknown S2"},
        {0xFF, DevicePowerState, "down unknown D2"},
        {IRP_MN_SET_POWER, kUnknownPowerType, "down IRP_MN_SET_POWER D2"},
        {IRP_MN_QUERY_POWER, static_cast<POWER_STATE_TYPE>(3), "down IRP_MN_QUERY_POWER D2"},
    };
    for (const ULONG state : {STATE_STARTED, STATE_POWER_QUERIED}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name + (" in " + StateText(state)));
            const std::unique_ptr<Machine> machine = MachineIn(state);
            Rig& rig = machine->rig;
            Story story(rig);
            (void)PowerRequest(rig, row.minor, row.type, 3).Wait();
            EXPECT_EQ(story.Take(), Lines{row.name});
            EXPECT_EQ(StateText(StateOf(rig)), StateText(state));
            EXPECT_EQ(Inside(rig).DevicePowerState, PowerDeviceD0);
            EXPECT_EQ(PendingIn(rig), 0U);
        }
    }
}

// Maps --------------------------------------------------------------------------------------------------------

TEST(Power, TheDeviceFollowsTheMapOfTheBus)
{
    const std::vector<std::vector<DEVICE_POWER_STATE>> maps = {
        {PowerDeviceD2, PowerDeviceD2, PowerDeviceD2, PowerDeviceD3, PowerDeviceD3},
        {PowerDeviceD0, PowerDeviceD1, PowerDeviceD3, PowerDeviceD3, PowerDeviceD3},
        {PowerDeviceD3, PowerDeviceD2, PowerDeviceD1, PowerDeviceD2, PowerDeviceD1},
    };
    for (const auto& map : maps) {
        for (ULONG system = PowerSystemSleeping1; system <= PowerSystemShutdown; ++system) {
            SCOPED_TRACE("S" + std::to_string(system - 1));
            RigOptions options;
            options.port.device_states = {PowerDeviceUnspecified, PowerDeviceD0};
            options.port.device_states.insert(options.port.device_states.end(), map.begin(), map.end());
            Rig rig(options);
            Port port = rig.OpenStreaming();
            const DEVICE_POWER_STATE device = map[system - PowerSystemSleeping1];
            EXPECT_EQ(PowerManager::Current().Sleep(static_cast<SYSTEM_POWER_STATE>(system)), STATUS_SUCCESS);
            EXPECT_EQ(rig.usb_port->PowerState(), device);
            EXPECT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
            EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
            ExpectStream(port);
        }
    }
}

// Sleep and resume ----------------------------------------------------------------------------------------------

TEST(Power, WithoutClientsNothingIsReadAfterAResume)
{
    for (const std::uint32_t fast : {0U, 1U}) {
        SCOPED_TRACE(fast);
        Machine machine(WithFastResume(fast));
        Rig& rig = machine.rig;
        EXPECT_EQ(PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
        Story story(rig);
        EXPECT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
        rig.RunFor(20 * kSecond);
        EXPECT_EQ(story.Take(),
                  (Lines{"down IRP_MN_SET_POWER S0", "down IRP_MN_SET_POWER D0", "reports D0"}));
        EXPECT_EQ(PendingIn(rig), 0U);
        ExpectStream(rig.OpenStreaming());
    }
}

// Fast or not, the module is told to stream again. The line is conditioned again only behind a resume that waited for
// the device.
TEST(Power, ReadingGoesOnAfterAResume)
{
    for (const std::uint32_t fast : {0U, 1U, 2U}) {
        SCOPED_TRACE(fast);
        Machine machine(WithFastResume(fast));
        Rig& rig = machine.rig;
        Port port = rig.OpenStreaming();
        rig.RunFor(5 * kSecond);
        Story story(rig);
        EXPECT_EQ(PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
        EXPECT_EQ(story.Take(), Lines({"down IRP_MN_QUERY_POWER S3", "down IRP_MN_QUERY_POWER D2",
                                       "down IRP_MN_SET_POWER S3", "reports D2"}) +
                                    kDrain + Lines{"down IRP_MN_SET_POWER D2"});
        rig.RunFor(60 * kSecond);
        EXPECT_EQ(story.Take(), Lines{});
        EXPECT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
        const ULONG before = port.InQueue();
        rig.RunFor(10 * kSecond);
        const Lines woken = {"down IRP_MN_SET_POWER S0", "down IRP_MN_SET_POWER D0", "reports D0"};
        const Lines set_up = fast == 1 ? kStartStream : kSetUpLine + kStartStream;
        EXPECT_EQ(WithoutRepeats(story.Take()), WithoutRepeats(woken + set_up));
        EXPECT_GT(port.InQueue(), before);
    }
}

// A fast resume does not wait for the device. A system that was at work already has nothing to resume from, one that
// has asked for a sleep has; and an old system knows no fast resume.
TEST(Power, WhichResumesAreFast)
{
    struct {
        const char* what;
        std::uint32_t setting;
        SYSTEM_POWER_STATE asked;
        bool sleeps, fast;
        std::uint32_t system = 10; // its version
    } const rows[] = {
        {"not set", 0, PowerSystemSleeping3, true, false},
        {"set", 1, PowerSystemSleeping3, true, true},
        {"set to something else", 2, PowerSystemSleeping3, true, false},
        {"set on an old system", 1, PowerSystemSleeping3, true, false, 5},
        {"asked for work only", 1, PowerSystemWorking, false, false},
        {"asked for a sleep only", 1, PowerSystemSleeping3, false, true},
        {"asked for hibernation only", 1, PowerSystemHibernate, false, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        RigOptions options = WithFastResume(row.setting);
        options.kernel.os = {row.system, 1, 2600};
        Machine machine(options);
        Rig& rig = machine.rig;
        ASSERT_EQ(row.sleeps ? PowerManager::Current().Sleep(row.asked)
                             : SendSystemPower(rig, IRP_MN_QUERY_POWER, row.asked),
                  STATUS_SUCCESS);
        machine.filter.Hold("IRP_MN_SET_POWER D0");
        const PowerRequest resume(rig, IRP_MN_SET_POWER, SystemPowerState, PowerSystemWorking);
        rig.RunFor(kSecond);
        EXPECT_EQ(resume.Done(), row.fast);
        EXPECT_EQ(machine.filter.Held(), 1U);
        EXPECT_NE(PendingIn(rig), 0U);
        machine.filter.Release();
        EXPECT_EQ(resume.Wait(), STATUS_SUCCESS);
        rig.RunFor(kSecond);
        EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
        EXPECT_EQ(PendingIn(rig), 0U);
    }
}

TEST(Power, ASleepThatIsRefusedElsewhereLeavesThePortAtWork)
{
    for (const bool streaming : {false, true}) {
        SCOPED_TRACE(streaming);
        Machine machine;
        Rig& rig = machine.rig;
        Port port = streaming ? rig.OpenStreaming() : Port();
        PowerManager::Current().SetNeighbour([](SYSTEM_POWER_STATE) { return STATUS_DEVICE_BUSY; });
        EXPECT_EQ(PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_DEVICE_BUSY);
        EXPECT_EQ(StateText(StateOf(rig)), "STATE_STARTED");
        EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
        if (!streaming)
            port = rig.OpenStreaming();
        const ULONG before = port.InQueue();
        rig.RunFor(10 * kSecond);
        EXPECT_GT(port.InQueue(), before);
    }
}

TEST(Power, ASleepWithoutAQueryAndManySleepsInARow)
{
    Machine machine;
    Rig& rig = machine.rig;
    Port port = rig.OpenStreaming();
    for (int night = 0; night < 20; ++night) {
        SCOPED_TRACE(night);
        EXPECT_EQ(PowerManager::Current().CriticalSleep(PowerSystemSleeping3), STATUS_SUCCESS);
        EXPECT_TRUE(rig.module->Look().suspended);
        rig.RunFor(night * kSecond);
        EXPECT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
        EXPECT_TRUE(rig.kernel.RunUntil([&] { return rig.module->Look().nmea_flowing; }, 10 * kSecond));
    }
    while (port.InQueue() != 0)
        port.Read(port.InQueue());
    const std::uint64_t sent = rig.module->Look().sentence_bytes;
    rig.RunFor(5 * kSecond);
    EXPECT_EQ(port.InQueue(), rig.module->Look().sentence_bytes - sent);
}

// The drain -----------------------------------------------------------------------------------------------------

TEST(Power, TheDrainGivesEachPipeThirtyMilliseconds)
{
    Rig rig;
    ASSERT_EQ(SendDevicePower(rig, IRP_MN_SET_POWER, PowerDeviceD2), STATUS_SUCCESS);
    const std::vector<host::UsbRequest> log = host::UsbBus::Current().Log();
    ASSERT_GE(log.size(), 2U);
    for (const host::UsbRequest& drain : {log[log.size() - 2], log.back()}) {
        EXPECT_EQ(drain.length, 4096U);
        EXPECT_EQ(drain.usbd_status, USBD_STATUS_CANCELED);
        EXPECT_GE(drain.completed - drain.submitted, 30 * kMillisecond);
        EXPECT_LE(drain.completed - drain.submitted, 50 * kMillisecond); // the clock ticks
    }
}

TEST(Power, ADrainThatMemoryIsTooShortForIsSkipped)
{
    for (const host::FaultPoint point :
         {host::FaultPoint::PoolAllocate, host::FaultPoint::WorkItemAllocate}) {
        SCOPED_TRACE(host::FaultPointName(point));
        Machine machine;
        Story story(machine.rig);
        machine.rig.kernel.Faults().Arm(point, {});
        EXPECT_EQ(SendDevicePower(machine.rig, IRP_MN_SET_POWER, PowerDeviceD2), STATUS_SUCCESS);
        EXPECT_EQ(machine.rig.kernel.Faults().Faults(point), 1U);
        EXPECT_EQ(story.Take(), (Lines{"reports D2", "down IRP_MN_SET_POWER D2"}));
        EXPECT_EQ(Inside(machine.rig).DevicePowerState, PowerDeviceD2);
        EXPECT_EQ(PendingIn(machine.rig), 0U);
    }
}

// A device that sleeps already and is to sleep deeper is drained once more, although the bus takes nothing.
TEST(Power, FromOneLowStateToALowerOne)
{
    Machine machine(Excusing({}, host::Rule::UrbNotInD0, "the drain of a device that sleeps already"));
    Rig& rig = machine.rig;
    ASSERT_EQ(SendDevicePower(rig, IRP_MN_SET_POWER, PowerDeviceD2), STATUS_SUCCESS);
    Story story(rig);
    EXPECT_EQ(SendDevicePower(rig, IRP_MN_SET_POWER, PowerDeviceD3), STATUS_SUCCESS);
    const Lines lines = story.Take();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines.front(), "reports D3");
    EXPECT_EQ(lines.back(), "down IRP_MN_SET_POWER D3");
    EXPECT_FALSE(NT_SUCCESS(host::UsbBus::Current().Log().back().status));
    // And back by the same way.
    EXPECT_EQ(SendDevicePower(rig, IRP_MN_SET_POWER, PowerDeviceD1), STATUS_SUCCESS);
    EXPECT_EQ(story.Take(), (Lines{"down IRP_MN_SET_POWER D1", "reports D1"}));
    EXPECT_EQ(Inside(rig).PreviousDevicePowerState, PowerDeviceD3);
}

// Failures ------------------------------------------------------------------------------------------------------

// It goes no further: the device's own requests are not made, or fail the system's.
TEST(Power, ARequestThatTheBusFailsFailsTheSystemRequest)
{
    struct {
        const char* kind;
        ULONG after; // of the query
        Lines story;
    } const rows[] = {
        {"S3", STATE_STARTED, {"down IRP_MN_QUERY_POWER S3", "down IRP_MN_SET_POWER S3"}},
        // It was reported before the bus had a say.
        {"D2", STATE_POWER_QUERIED,
         Lines{"down IRP_MN_QUERY_POWER S3", "down IRP_MN_QUERY_POWER D2", "down IRP_MN_SET_POWER S3"} +
             SetDeviceTo(PowerDeviceD2).story},
    };
    for (const auto& [kind, after, expected] : rows) {
        SCOPED_TRACE(kind);
        Machine machine(Excusing({}, host::Rule::PowerMayNotFail, "a bus that breaks the rules"));
        Rig& rig = machine.rig;
        machine.filter.Fail(std::string("IRP_MN_QUERY_POWER ") + kind, STATUS_UNSUCCESSFUL);
        machine.filter.Fail(std::string("IRP_MN_SET_POWER ") + kind, STATUS_NO_SUCH_DEVICE);
        Story story(rig);
        EXPECT_EQ(SendSystemPower(rig, IRP_MN_QUERY_POWER, PowerSystemSleeping3), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(SendSystemPower(rig, IRP_MN_SET_POWER, PowerSystemSleeping3), STATUS_NO_SUCH_DEVICE);
        EXPECT_EQ(story.Take(), expected);
        EXPECT_EQ(Inside(rig).DevicePowerState, PowerDeviceD0);
        EXPECT_EQ(Inside(rig).PreviousDevicePowerState, PowerDeviceUnspecified);
        EXPECT_EQ(StateText(StateOf(rig)), StateText(after));
        EXPECT_EQ(PendingIn(rig), 0U);
    }
}

TEST(Power, ADeviceRequestThatCannotBeMadeFailsTheSystemRequest)
{
    struct {
        const char* what;
        std::uint32_t fast;
        UCHAR minor;
        SYSTEM_POWER_STATE state;
        NTSTATUS status;
    } const rows[] = {
        {"a query", 0, IRP_MN_QUERY_POWER, PowerSystemSleeping3, STATUS_NO_SUCH_DEVICE},
        {"a sleep", 0, IRP_MN_SET_POWER, PowerSystemSleeping3, STATUS_NO_SUCH_DEVICE},
        {"a resume", 0, IRP_MN_SET_POWER, PowerSystemWorking, STATUS_NO_SUCH_DEVICE},
        {"a fast resume, finished before", 1, IRP_MN_SET_POWER, PowerSystemWorking, STATUS_SUCCESS},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        Machine machine(
            Excusing(WithFastResume(row.fast), host::Rule::PowerMayNotFail, "the power manager fails"));
        Rig& rig = machine.rig;
        if (row.state == PowerSystemWorking)
            ASSERT_EQ(PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
        Story story(rig);
        rig.kernel.Faults().Arm(host::FaultPoint::PowerRequest, {.fault = {.status = STATUS_NO_SUCH_DEVICE}});
        EXPECT_EQ(SendSystemPower(rig, row.minor, row.state), row.status);
        EXPECT_EQ(story.Take().size(), 1U); // the system's request alone
        EXPECT_EQ(PendingIn(rig), 0U);
        // The next one finds nothing held.
        EXPECT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
        EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
        EXPECT_EQ(PendingIn(rig), 0U);
    }
}

// Wait-wake -----------------------------------------------------------------------------------------------------

// The first one that completes stays with the driver for ever, those after it come back.
TEST(Power, WaitWakeRequests)
{
    RigOptions options =
        Excusing({}, host::Rule::IrpLeak, "the first wait-wake request is left to a canceller");
    options = Excusing(options, host::Rule::DeviceDeletedWithPower, "the same");
    Machine machine(options);
    Rig& rig = machine.rig;
    ArmRemoteWake(rig);
    Story story(rig);
    for (const bool first : {true, false}) {
        SCOPED_TRACE(first);
        const PowerRequest wake(rig, IRP_MN_WAIT_WAKE, first ? SystemPowerState : DevicePowerState,
                                PowerSystemSleeping3);
        EXPECT_EQ(story.Take(), Lines{"down IRP_MN_WAIT_WAKE"});
        EXPECT_EQ(PendingIn(rig), 0U); // it is not counted
        ASSERT_EQ(PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
        EXPECT_FALSE(wake.Done());
        rig.module->WakeAt(rig.kernel.Now() + 5 * kSecond);
        rig.usb_port->Poke();
        rig.RunFor(10 * kSecond);
        const Lines lines = story.Take();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "wait-wake ends 0x0"), 1);
        EXPECT_EQ(wake.Done(), !first);
        if (!first)
            EXPECT_EQ(wake.Wait(), STATUS_SUCCESS);
        ASSERT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
        story.Take();
    }
}

// A bus that does not keep it, and a module that is pulled while it is kept, end it. Those are second requests.
TEST(Power, WaitWakeRequestsThatEndWithoutAWake)
{
    RigOptions options;
    for (const bool pulled : {false, true}) {
        SCOPED_TRACE(pulled);
        options.module.function.remote_wakeup = pulled;
        Rig rig(options);
        Inside(rig).WaitWakeCancelled = 1; // as a first one leaves it
        if (!pulled)                       // the driver takes it also when it was asked for its power
            EXPECT_EQ(SendDevicePower(rig, IRP_MN_QUERY_POWER, PowerDeviceD2), STATUS_SUCCESS);
        const PowerRequest wake(rig, IRP_MN_WAIT_WAKE, SystemPowerState, PowerSystemSleeping3);
        EXPECT_EQ(wake.Done(), !pulled);
        if (pulled)
            rig.Unplug();
        EXPECT_EQ(wake.Wait(), pulled ? STATUS_DEVICE_NOT_CONNECTED : STATUS_NOT_SUPPORTED);
    }
}

} // namespace
} // namespace navox_test
