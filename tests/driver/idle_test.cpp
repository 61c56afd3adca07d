// Selective suspend: when the driver asks the hub, what it does when the hub calls back, and how the device comes back.
#include "lifecycle.h"

#include "io/names.h"
#include "navox_selsusp.h"
#include "po/power_manager.h"
#include "usbd/usb_port.h"

#include <algorithm>

namespace navox_test {
namespace {

const Lines kSuspends = {"idle request", "idle callback", "reports D2",
                         "in 81",        "in 82",         "down IRP_MN_SET_POWER D2"};
const Lines kWakes = {"idle request ends 0xc0000120", "down IRP_MN_SET_POWER D0", "reports D0"};

RigOptions Suspending(RigOptions options = {})
{
    options.settings["EnableSelectiveSuspend"] = 1;
    return options;
}

std::ptrdiff_t Count(const Lines& lines, std::string_view line)
{
    return std::count(lines.begin(), lines.end(), line);
}

// The time until the driver asks the hub, to the tenth of a second; nothing when it does not within a minute.
std::optional<host::Time> TimeToRequest(Rig& rig)
{
    Story story(rig);
    for (host::Time passed = 0; passed < 60 * kSecond; passed += 100 * kMillisecond) {
        if (Count(story.Take(), "idle request") != 0)
            return passed;
        rig.RunFor(100 * kMillisecond);
    }
    return std::nullopt;
}

// A machine that has been left alone until the module sleeps.
std::unique_ptr<Machine> Suspended()
{
    auto machine = std::make_unique<Machine>(Suspending());
    machine->rig.RunFor(6 * kSecond);
    EXPECT_EQ(machine->rig.usb_port->PowerState(), PowerDeviceD2);
    EXPECT_TRUE(machine->rig.module->Look().suspended);
    return machine;
}

// A machine whose hub has been asked, and does not call back yet.
std::unique_ptr<Machine> Asked()
{
    auto machine = std::make_unique<Machine>(Suspending());
    machine->rig.usb_port->AllowIdle(false);
    machine->rig.RunFor(6 * kSecond);
    EXPECT_TRUE(machine->rig.usb_port->IdleRequested());
    EXPECT_EQ(machine->rig.usb_port->PowerState(), PowerDeviceD0);
    return machine;
}

// A machine whose device is on its way down: the filter keeps the power request.
std::unique_ptr<Machine> GoingDown()
{
    auto machine = std::make_unique<Machine>(Suspending());
    machine->filter.Hold("IRP_MN_SET_POWER D2");
    machine->rig.RunFor(6 * kSecond);
    EXPECT_EQ(machine->filter.Held(), 1U);
    return machine;
}

// When ----------------------------------------------------------------------------------------------------------

TEST(Idle, WithoutTheSettingNobodyIsAsked)
{
    Machine machine;
    Rig& rig = machine.rig;
    Story story(rig);
    rig.RunFor(60 * kSecond);
    rig.Open().Close();
    EXPECT_EQ(host::PnpManager::Current().Rebalance(rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(host::PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
    EXPECT_EQ(host::PowerManager::Current().Wake(), STATUS_SUCCESS);
    EXPECT_EQ(SendPnp(rig, IRP_MN_SURPRISE_REMOVAL), STATUS_SUCCESS);
    EXPECT_EQ(Count(story.Take(), "idle request"), 0);
    EXPECT_FALSE(Inside(rig).IdleMonitorActive);
}

TEST(Idle, TheHubIsAskedFiveSecondsAfterTheStart)
{
    Machine machine(Suspending());
    Story story(machine.rig);
    machine.rig.RunFor(4900 * kMillisecond);
    EXPECT_EQ(story.Take(), Lines{});
    machine.rig.RunFor(600 * kMillisecond);
    EXPECT_EQ(story.Take(), kSuspends);
    // And left alone from then on.
    machine.rig.RunFor(600 * kSecond);
    EXPECT_EQ(story.Take(), Lines{});
}

TEST(Idle, NobodyIsAskedWhileAClientIsThere)
{
    Machine machine(Suspending());
    Rig& rig = machine.rig;
    Port first = rig.Open();
    Port second = rig.Open();
    EXPECT_EQ(TimeToRequest(rig), std::nullopt);
    first.Close();
    EXPECT_EQ(TimeToRequest(rig), std::nullopt);
    second.Close();
    const std::optional<host::Time> time = TimeToRequest(rig);
    ASSERT_TRUE(time.has_value());
    EXPECT_LE(*time, 5100 * kMillisecond);
}

TEST(Idle, NobodyIsAskedWhileARequestIsInside)
{
    Machine machine(Suspending());
    Rig& rig = machine.rig;
    machine.filter.Hold("IRP_MN_SET_POWER D0");
    const PowerRequest power(rig, IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0);
    EXPECT_EQ(TimeToRequest(rig), std::nullopt);
    machine.filter.Release();
    EXPECT_NE(TimeToRequest(rig), std::nullopt);
}

TEST(Idle, ACheckThatMemoryIsTooShortForIsMadeAgainFiveSecondsLater)
{
    for (const host::FaultPoint point : {host::FaultPoint::WorkItemAllocate, host::FaultPoint::PoolAllocate,
                                         host::FaultPoint::IrpAllocate}) {
        SCOPED_TRACE(host::FaultPointName(point));
        Machine machine(Suspending());
        Rig& rig = machine.rig;
        Story story(rig);
        rig.kernel.Faults().Arm(point, {});
        rig.RunFor(9 * kSecond);
        EXPECT_EQ(rig.kernel.Faults().Faults(point), 1U);
        EXPECT_EQ(story.Take(), Lines{});
        rig.RunFor(2 * kSecond);
        EXPECT_EQ(story.Take(), kSuspends);
    }
}

TEST(Idle, WhatASubmissionAnswers)
{
    const std::unique_ptr<Machine> asked = Asked();
    EXPECT_EQ(SubmitIdleRequest(&Inside(asked->rig)), STATUS_DEVICE_BUSY);
    EXPECT_EQ(SendPnp(asked->rig, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(SubmitIdleRequest(&Inside(asked->rig)), STATUS_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(PendingIn(asked->rig), 0U);
}

TEST(Idle, ASubmissionForASleepingDevice)
{
    EXPECT_EQ(SubmitIdleRequest(&Inside(Suspended()->rig)), STATUS_POWER_STATE_INVALID);
}

// How it ends -----------------------------------------------------------------------------------------------------

const Lines kPowersUp = {"down IRP_MN_SET_POWER D0", "reports D0"};
constexpr NTSTATUS kEnds[] = {
    STATUS_NOT_SUPPORTED, STATUS_POWER_STATE_INVALID, STATUS_DEVICE_BUSY, STATUS_INVALID_DEVICE_REQUEST,
    STATUS_UNSUCCESSFUL,  STATUS_CANCELLED,           STATUS_SUCCESS,     STATUS_DEVICE_NOT_CONNECTED};

// The device is in D0 when these come. Only a cancellation brings a power request, and the next check comes in any
// case.
TEST(Idle, RequestsThatTheHubRefuses)
{
    for (const NTSTATUS status : kEnds) {
        SCOPED_TRACE(host::IopStatusText(status));
        Machine machine(Suspending());
        Rig& rig = machine.rig;
        Story story(rig);
        machine.filter.AnswerIdle(status);
        rig.RunFor(6 * kSecond);
        EXPECT_EQ(story.Take(), status == STATUS_CANCELLED ? kPowersUp : Lines{});
        EXPECT_EQ(PendingIn(rig), 0U);
        machine.filter.Release();
        rig.RunFor(5 * kSecond);
        EXPECT_EQ(story.Take(), kSuspends);
    }
}

// Here it sleeps when they come. Two answers say that the hub has nothing to do with it.
TEST(Idle, RequestsThatEndWhileTheDeviceSleeps)
{
    for (const NTSTATUS status : kEnds) {
        SCOPED_TRACE(host::IopStatusText(status));
        Machine machine(Suspending());
        Rig& rig = machine.rig;
        machine.filter.AnswerIdle(STATUS_PENDING);
        rig.RunFor(6 * kSecond);
        EXPECT_EQ(SendDevicePower(rig, IRP_MN_SET_POWER, PowerDeviceD2), STATUS_SUCCESS);
        Story story(rig);
        machine.filter.EndHeld(status);
        rig.RunFor(kSecond);
        const bool stays = status == STATUS_NOT_SUPPORTED || status == STATUS_POWER_STATE_INVALID;
        EXPECT_EQ(story.Take(), stays ? Lines{} : kPowersUp);
        EXPECT_EQ(PendingIn(rig), 0U);
    }
}

TEST(Idle, AModuleThatWakesTheBusIsBroughtBackAndSuspendedAgain)
{
    Machine machine(Suspending());
    Rig& rig = machine.rig;
    ArmRemoteWake(rig);
    rig.RunFor(6 * kSecond);
    Story story(rig);
    rig.module->WakeAt(rig.kernel.Now() + kSecond);
    rig.usb_port->Poke();
    rig.RunFor(3 * kSecond);
    EXPECT_EQ(story.Take(), (Lines{"idle request ends 0x0", "down IRP_MN_SET_POWER D0", "reports D0"}));
    EXPECT_EQ(PendingIn(rig), 0U);
    rig.RunFor(5 * kSecond);
    EXPECT_EQ(story.Take(), kSuspends);
}

// Waking by an open -----------------------------------------------------------------------------------------------

TEST(Idle, AnOpenWakesTheModuleAndReadingWorks)
{
    const std::unique_ptr<Machine> machine = Suspended();
    Rig& rig = machine->rig;
    Story story(rig);
    Port port = rig.Open();
    EXPECT_EQ(story.Take(), kWakes + Lines({"OpenHandles = 1", "CLEAR_COMM_FEATURE", "GET_COMM_FEATURE",
                                            "SET_COMM_FEATURE(3)", "GET_COMM_FEATURE", "SET_COMM_FEATURE(2)",
                                            "reset 82", "SET_CONTROL_LINE_STATE(3)"}));
    port.Close();
    ExpectStream(rig.OpenStreaming());
    rig.RunFor(6 * kSecond);
    const Lines lines = story.Take();
    EXPECT_EQ(Lines(lines.end() - 6, lines.end()), kSuspends);
}

TEST(Idle, AnOpenTakesBackARequestThatTheHubHasNotAnswered)
{
    const std::unique_ptr<Machine> machine = Asked();
    Story story(machine->rig);
    Port port = machine->rig.Open();
    Lines lines = story.Take();
    lines.resize(kWakes.size());
    EXPECT_EQ(lines, kWakes); // D0 is asked for although the device is there
    EXPECT_FALSE(machine->rig.usb_port->IdleRequested());
}

// So does whatever the system asks but a start, before it goes down.
TEST(Idle, RequestsOfTheSystemBringTheDeviceBack)
{
    const auto pnp = [](UCHAR minor) { return [minor](Rig& rig) { (void)SendPnp(rig, minor); }; };
    struct {
        std::function<void(Rig&)> send;
        Lines before, down;
    } const rows[] = {
        {pnp(IRP_MN_QUERY_CAPABILITIES), kWakes, {"down IRP_MN_QUERY_CAPABILITIES"}},
        {pnp(IRP_MN_QUERY_PNP_DEVICE_STATE), kWakes, {"down IRP_MN_QUERY_PNP_DEVICE_STATE"}},
        {pnp(0xFF), kWakes, {"down unknown"}},
        {pnp(IRP_MN_START_DEVICE), {}, {"down IRP_MN_START_DEVICE"}},
        {[](Rig& rig) { (void)SendSystemPower(rig, IRP_MN_QUERY_POWER, PowerSystemSleeping3); },
         kWakes,
         {"down IRP_MN_QUERY_POWER S3", "down IRP_MN_QUERY_POWER D2"}},
    };
    for (const auto make : {Suspended, Asked}) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.down.front() + (make == Asked ? ", asked" : ", suspended"));
            const std::unique_ptr<Machine> machine = make();
            Story story(machine->rig);
            row.send(machine->rig);
            EXPECT_EQ(story.Take(), row.before + row.down);
        }
    }
}

// The device is still going down when the application comes.
TEST(Idle, AnOpenDuringTheWayDown)
{
    const std::unique_ptr<Machine> machine = GoingDown();
    Rig& rig = machine->rig;
    Port port;
    host::ThreadHandle application = rig.kernel.Spawn("application", [&] { port = rig.Open(); });
    rig.RunFor(kSecond);
    machine->filter.Release();
    application.Join();
    EXPECT_TRUE(rig.kernel.RunUntil([&] { return rig.module->Look().nmea_flowing; }, 20 * kSecond));
    EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
    EXPECT_EQ(Inside(rig).DevicePowerState, PowerDeviceD0);
}

TEST(Idle, AnOpenThatFailsWakesTheModuleAllTheSame)
{
    const std::unique_ptr<Machine> machine = Suspended();
    Rig& rig = machine->rig;
    Story story(rig);
    rig.kernel.Faults().Arm(host::FaultPoint::PoolAllocate, {.detail = "NxCl"});
    Port port;
    EXPECT_EQ(rig.TryOpen(&port), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(story.Take(), kWakes);
    rig.RunFor(6 * kSecond);
    EXPECT_EQ(story.Take(), kSuspends);
}

// The hub's callback ------------------------------------------------------------------------------------------------

TEST(Idle, ACallbackThatCannotPowerDownLeavesTheDeviceAwake)
{
    using enum host::FaultPoint;
    for (const auto& [point, detail] : {std::pair(PowerRequest, ""), std::pair(PoolAllocate, "NxIx")}) {
        SCOPED_TRACE(host::FaultPointName(point));
        RigOptions options = Suspending();
        options.kernel.excuses = {
            {.rule = host::Rule::IdleNotPoweredDown, .reason = "nothing is left to try"}};
        Machine machine(options);
        Rig& rig = machine.rig;
        Story story(rig);
        rig.kernel.Faults().Arm(point, {.detail = detail});
        rig.RunFor(20 * kSecond);
        EXPECT_EQ(story.Take(), (Lines{"idle request", "idle callback"}));
        EXPECT_EQ(Inside(rig).DevicePowerState, PowerDeviceD0);
        EXPECT_EQ(PendingIn(rig), 1U); // the idle request itself
        ExpectStream(rig.OpenStreaming());
    }
}

TEST(Idle, TheIdleStateIsTheOneThatTheCapabilitiesGive)
{
    RigOptions options = Suspending();
    options.port.device_states = {PowerDeviceUnspecified, PowerDeviceD0, PowerDeviceD1, PowerDeviceD3,
                                  PowerDeviceD3,          PowerDeviceD3, PowerDeviceD3};
    Rig rig(options);
    rig.RunFor(6 * kSecond);
    EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD1);
}

// Plug and Play meanwhile -----------------------------------------------------------------------------------------

const std::vector<std::pair<const char*, std::unique_ptr<Machine> (*)()>> kMoments = {
    {"suspended", Suspended}, {"asked", Asked}, {"going down", GoingDown}};

// Runs `change` on a thread of its own; a request that the filter keeps is let go after a second.
void During(Machine& machine, const std::function<void()>& change)
{
    host::ThreadHandle thread = machine.rig.kernel.Spawn("change", change);
    machine.rig.RunFor(kSecond);
    machine.filter.Release();
    thread.Join();
}

// Whatever it was, the device is there afterwards, and is suspended again when it is left alone.
TEST(Idle, PulledStoppedOrDisabledMeanwhile)
{
    host::PnpManager* pnp = nullptr;
    struct {
        const char* name;
        std::function<void(Rig&)> change, undo;
    } const changes[] = {
        {"pulled", [](Rig& rig) { rig.Unplug(); }, [](Rig& rig) { rig.Plug(); }},
        {"rebalanced", [&](Rig& rig) { EXPECT_EQ(pnp->Rebalance(rig.Node()), STATUS_SUCCESS); }, [](Rig&) {}},
        {"disabled", [&](Rig& rig) { EXPECT_EQ(pnp->Disable(rig.Node()), STATUS_SUCCESS); },
         [&](Rig& rig) { EXPECT_EQ(pnp->Enable(rig.Node()), STATUS_SUCCESS); }},
    };
    for (const auto& change : changes) {
        for (const auto& [name, make] : kMoments) {
            SCOPED_TRACE(std::string(change.name) + " while " + name);
            const std::unique_ptr<Machine> machine = make();
            Rig& rig = machine->rig;
            pnp = &host::PnpManager::Current();
            During(*machine, [&] { change.change(rig); });
            change.undo(rig);
            EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
            EXPECT_EQ(PendingIn(rig), 0U);
            rig.usb_port->AllowIdle(true);
            rig.RunFor(6 * kSecond);
            EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD2);
            ExpectStream(rig.OpenStreaming());
        }
    }
}

TEST(Idle, AStoppedDeviceIsNotLookedAt)
{
    Machine machine(Suspending());
    EXPECT_EQ(SendPnp(machine.rig, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(SendPnp(machine.rig, IRP_MN_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(TimeToRequest(machine.rig), std::nullopt);
    EXPECT_EQ(SendPnp(machine.rig, IRP_MN_START_DEVICE), STATUS_SUCCESS);
    EXPECT_NE(TimeToRequest(machine.rig), std::nullopt);
}

TEST(Idle, TheSystemSleepsMeanwhile)
{
    for (const bool query : {true, false}) {
        for (const auto& [name, make] : kMoments) {
            SCOPED_TRACE(std::string(name) + (query ? ", asked before" : ", at once"));
            const std::unique_ptr<Machine> machine = make();
            Rig& rig = machine->rig;
            host::PowerManager& power = host::PowerManager::Current();
            During(*machine, [&] {
                EXPECT_EQ(query ? power.Sleep(PowerSystemSleeping3)
                                : power.CriticalSleep(PowerSystemSleeping3),
                          STATUS_SUCCESS);
            });
            rig.RunFor(60 * kSecond);
            EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD2);
            EXPECT_EQ(power.Wake(), STATUS_SUCCESS);
            rig.RunFor(kSecond);
            EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD0);
            rig.usb_port->AllowIdle(true);
            rig.RunFor(11 * kSecond);
            EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD2);
            ExpectStream(rig.OpenStreaming());
        }
    }
}

// Taken back before it was sent ---------------------------------------------------------------------------------------

// A read came in between. The count is one short from then on: a query does not wait for the last request, and no
// further idle request is sent. A removal still waits for everybody.
TEST(Idle, ARequestThatIsTakenBackLeavesTheCountOneShort)
{
    Machine machine(Suspending());
    Rig& rig = machine.rig;
    Port port = rig.Open();
    host::nt::Request read = port.StartRead(4096);
    Story story(rig);
    EXPECT_EQ(SubmitIdleRequest(&Inside(rig)), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Count(story.Take(), "idle request"), 0);
    EXPECT_EQ(PendingIn(rig), 0U); // the read is inside
    EXPECT_EQ(SendPnp(rig, IRP_MN_QUERY_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(SendPnp(rig, IRP_MN_CANCEL_STOP_DEVICE), STATUS_SUCCESS);
    EXPECT_EQ(read.Status(), STATUS_PENDING);
    port.Close();
    EXPECT_EQ(read.Wait().status, STATUS_CANCELLED);
    EXPECT_EQ(TimeToRequest(rig), std::nullopt);
    ExpectStream(rig.OpenStreaming());
}

TEST(Idle, ARemovalWaitsForEverybodyAlsoWhenTheCountIsOneShort)
{
    Machine machine(Suspending());
    Rig& rig = machine.rig;
    machine.filter.Hold("IRP_MN_SET_POWER D0");
    const PowerRequest inside(rig, IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0);
    EXPECT_EQ(SubmitIdleRequest(&Inside(rig)), STATUS_UNSUCCESSFUL);
    host::ThreadHandle removal =
        rig.kernel.Spawn("removal", [&] { EXPECT_EQ(SendPnp(rig, IRP_MN_REMOVE_DEVICE), STATUS_SUCCESS); });
    EXPECT_FALSE(rig.kernel.RunUntil([&] { return removal.Done(); }, 60 * kSecond));
    machine.filter.Release();
    removal.Join();
    EXPECT_EQ(inside.Wait(), STATUS_SUCCESS);
}

} // namespace
} // namespace navox_test
