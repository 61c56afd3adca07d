// Clients that read, wait, open and close while the device goes through its life, in an order left to chance; and two
// actors that meet, in every order with at most two pre-emptions. NAVOX_SEEDS, NAVOX_FIRST_SEED and NAVOX_SCHEDULES
// say how much of it is run.
#include "exploration.h"
#include "lifecycle.h"

#include "po/power_manager.h"
#include "usbd/usb_port.h"

#include <ntstatus.h>

#include <algorithm>
#include <random>
#include <set>

namespace navox_test {
namespace {

using Random = std::mt19937_64;

host::PnpManager& Pnp()
{
    return host::PnpManager::Current();
}

host::Time UpTo(Random& random, host::Time most)
{
    return static_cast<host::Time>(random() % static_cast<std::uint64_t>(most));
}

// Before the next fix there may be the answer to an AT exchange that a sleep broke off.
bool Streams(Rig& rig)
{
    Port port = rig.OpenStreaming();
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    EXPECT_EQ(port.SetTimeouts(0, 0, 3'000), STATUS_SUCCESS);
    const std::string text = port.Read(300).Text();
    EXPECT_NE(text.find("$GPGGA"), std::string::npos) << text;
    return text.find("$GPGGA") != std::string::npos;
}

// By chance ---------------------------------------------------------------------------------------------------

// What happens to the device while it is in use. True: it has been through it. It is started again at the end.
struct Change {
    const char* name;
    bool (*happen)(Rig& rig, Random& random);
    host::Time pause = kSecond; // of clients, at most, between two opens
};

bool StopAndStart(Rig& rig, Random& random)
{
    const host::PnpNodePtr node = rig.Node();
    if (random() % 3 != 0)
        return Pnp().Rebalance(node) == STATUS_SUCCESS;
    const NTSTATUS status = Pnp().QueryStop(node);
    rig.RunFor(UpTo(random, kSecond));
    return Pnp().CancelStop(node) == STATUS_SUCCESS && status == STATUS_SUCCESS;
}

bool QueryRemoveAndCancel(Rig& rig, Random& random)
{
    const NTSTATUS status = Pnp().QueryRemove(rig.Node());
    rig.RunFor(UpTo(random, kSecond));
    return Pnp().CancelRemove(rig.Node()) == STATUS_SUCCESS && status == STATUS_SUCCESS;
}

bool RemoveAndEnable(Rig& rig, Random& random)
{
    const host::PnpNodePtr node = rig.Node();
    for (int attempt = 0; attempt < 40; ++attempt) {
        if (Pnp().Disable(node) == STATUS_SUCCESS) {
            rig.RunFor(UpTo(random, kSecond));
            return Pnp().Enable(node) == STATUS_SUCCESS;
        }
        rig.RunFor(UpTo(random, kSecond / 2));
    }
    return false; // always in use
}

bool UnplugAndPlug(Rig& rig, Random& random)
{
    rig.Unplug();
    const bool gone = rig.kernel.RunUntil([&] { return rig.Node() == nullptr; }, 60 * kSecond);
    rig.RunFor(UpTo(random, kSecond));
    rig.Plug();
    return gone;
}

bool SleepAndResume(Rig& rig, Random& random)
{
    host::PowerManager& power = host::PowerManager::Current();
    const NTSTATUS status =
        random() % 3 != 0 ? power.Sleep(PowerSystemSleeping3) : power.CriticalSleep(PowerSystemSleeping3);
    rig.RunFor(UpTo(random, 3 * kSecond));
    return power.Wake() == STATUS_SUCCESS && status == STATUS_SUCCESS;
}

bool IdleAndWake(Rig& rig, Random& random)
{
    bool suspended = false;
    for (int i = 0; i < 15; ++i) {
        rig.usb_port->AllowIdle(random() % 4 != 0);
        rig.RunFor(UpTo(random, 2 * kSecond));
        suspended = suspended || rig.usb_port->PowerState() == PowerDeviceD2;
    }
    rig.usb_port->AllowIdle(true);
    return suspended;
}

// A program that uses the port again and again. No call of it waits for ever: a query would wait for it.
void UseThePort(Rig& rig, Random random, const bool& over, host::Time pause)
{
    while (!over) {
        Port port;
        if (NT_SUCCESS(rig.TryOpen(&port))) {
            (void)port.SetTimeouts(random() % 2 == 0 ? 0xFFFFFFFF : 50, 0, random() % 1'000);
            (void)port.SetWaitMask(SERIAL_EV_RXCHAR);
            for (std::uint64_t rest = random() % 6; rest != 0 && !over; --rest) {
                const host::nt::Request read = port.StartRead(1 + random() % 400);
                const host::nt::Request wait = random() % 3 == 0 ? port.StartWait() : read;
                rig.RunFor(UpTo(random, kSecond));
                if (random() % 4 != 0)
                    (void)wait.WaitFor(UpTo(random, kSecond));
                if (random() % 2 != 0)
                    (void)port.CancelIo();
            }
        }
        port.Close();
        rig.RunFor(UpTo(random, pause));
    }
}

bool InUse(const host::KernelOptions& kernel, const Change& change, int& happened)
{
    RigOptions options;
    options.kernel = kernel;
    options.kernel.in_focus = false;
    options.settings["EnableFR"] = kernel.seed % 2;
    options.settings["EnableSelectiveSuspend"] = kernel.seed / 2 % 2;
    if (change.happen == IdleAndWake)
        options.settings["EnableSelectiveSuspend"] = 1;
    Rig rig(std::move(options));
    rig.kernel.SetFocus(true);
    Random random(kernel.seed);
    bool over = false;
    {
        std::vector<host::ThreadHandle> clients;
        for (int i = 1; i <= 3; ++i)
            clients.push_back(rig.kernel.Spawn("client " + std::to_string(i), [&, seed = random()] {
                UseThePort(rig, Random(seed), over, change.pause);
            }));
        for (int i = 0; i < 2; ++i) {
            rig.RunFor(UpTo(random, 4 * kSecond));
            happened += change.happen(rig, random) ? 1 : 0;
        }
        rig.RunFor(UpTo(random, 2 * kSecond));
        over = true;
    }
    rig.kernel.SetFocus(false);
    return Streams(rig) && !::testing::Test::HasFailure();
}

class DeviceInUse : public ::testing::TestWithParam<Change> {};

TEST_P(DeviceInUse, GoesThroughItsLife)
{
    int happened = 0;
    const std::uint64_t seeds =
        ExpectGoodByChance({.max_steps = 500'000}, 30, [&](const host::KernelOptions& kernel) {
            return InUse(kernel, GetParam(), happened);
        });
    EXPECT_GE(static_cast<std::uint64_t>(happened), seeds) << "half of the changes did not come about";
}

INSTANTIATE_TEST_SUITE_P(Changes, DeviceInUse,
                         ::testing::Values(Change{"StopAndStart", StopAndStart},
                                           Change{"QueryRemoveAndCancel", QueryRemoveAndCancel},
                                           Change{"RemoveAndEnable", RemoveAndEnable, 3 * kSecond},
                                           Change{"UnplugAndPlug", UnplugAndPlug},
                                           Change{"SleepAndResume", SleepAndResume},
                                           Change{"IdleAndWake", IdleAndWake, 16 * kSecond}),
                         [](const auto& info) { return info.param.name; });

// In every order ------------------------------------------------------------------------------------------------

using Act = void (*)(Rig& rig, Port& port);

// What `prepare` does is no part of the race. Both begin at the tick of the clock at which `moment` comes about without
// them; at once where there is none.
struct Race {
    const char* name;
    Act prepare;
    bool (*moment)(Rig& rig);
    Act one;
    Act other;
    std::set<std::string> actors; // threads that are switched between
};

constexpr host::Time kTick = 156'250;

void LeaveAlone(Rig&, Port&) {}

void StartStream(Rig& rig, Port& port)
{
    port = rig.OpenStreaming();
    EXPECT_EQ(port.SetTimeouts(0, 0, 700), STATUS_SUCCESS);
}

// The fix that comes ends the read, and the reader goes on.
void ReadTheStream(Rig& rig, Port& port)
{
    StartStream(rig, port);
    EXPECT_EQ(port.Read(kEmptyFix.size()).Text(), kEmptyFix);
    (void)port.StartRead(20);
}

void AskTheHub(Rig& rig, Port&)
{
    rig.usb_port->AllowIdle(false);
    rig.RunFor(6 * kSecond);
    EXPECT_TRUE(rig.usb_port->IdleRequested());
}

void Suspend(Rig& rig, Port&)
{
    rig.usb_port->WithDevice([](module::Device& device) {
        device.Control({.bRequest = USB_REQUEST_SET_FEATURE, .wValue = USB_FEATURE_REMOTE_WAKEUP}, {});
    });
    rig.RunFor(6 * kSecond);
    EXPECT_EQ(rig.usb_port->PowerState(), PowerDeviceD2);
}

bool HubIsAsked(Rig& rig)
{
    return rig.usb_port->IdleRequested();
}

bool FixArrives(Rig&)
{
    const auto log = host::UsbBus::Current().Log();
    return std::any_of(log.begin(), log.end(), [](const host::UsbRequest& request) {
        return request.done && std::string(request.data.begin(), request.data.end()).starts_with("$GPGGA");
    });
}

void Open(Rig& rig, Port& port)
{
    EXPECT_EQ(rig.TryOpen(&port), STATUS_SUCCESS);
}

// Refused where the device is not started at that moment, or gone.
void TryToOpen(Rig& rig, Port& port)
{
    const NTSTATUS status = rig.TryOpen(&port);
    EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_INSUFFICIENT_RESOURCES ||
                status == STATUS_OBJECT_NAME_NOT_FOUND || status == STATUS_NO_SUCH_DEVICE ||
                status == STATUS_DELETE_PENDING)
        << std::hex << status;
}

void Read(Rig&, Port& port)
{
    const NTSTATUS status = port.Read(200).status;
    EXPECT_NE(status, STATUS_PENDING);
}

void Close(Rig&, Port& port)
{
    port.Close();
}

void Unplug(Rig& rig, Port&)
{
    rig.Unplug();
}

void LetTheHubSuspend(Rig& rig, Port&)
{
    if (const host::UsbPortPtr port = rig.usb_port)
        port->AllowIdle(true);
}

void ModuleWakes(Rig& rig, Port&)
{
    rig.module->WakeAt(rig.kernel.Now());
    rig.usb_port->Poke();
}

void Sleep(Rig&, Port&)
{
    EXPECT_EQ(host::PowerManager::Current().Sleep(PowerSystemSleeping3), STATUS_SUCCESS);
}

void QueryStopAndCancel(Rig& rig, Port&)
{
    EXPECT_EQ(Pnp().QueryStop(rig.Node()), STATUS_SUCCESS);
    EXPECT_EQ(Pnp().CancelStop(rig.Node()), STATUS_SUCCESS);
}

void DisableAndEnable(Rig& rig, Port&)
{
    const host::PnpNodePtr node = rig.Node();
    EXPECT_EQ(Pnp().Disable(node), STATUS_SUCCESS);
    EXPECT_EQ(Pnp().Enable(node), STATUS_SUCCESS);
}

void StopAndRestart(Rig& rig, Port&)
{
    EXPECT_EQ(Pnp().Rebalance(rig.Node()), STATUS_SUCCESS);
}

RigOptions RaceOptions(host::KernelOptions kernel)
{
    RigOptions options;
    options.kernel = std::move(kernel);
    options.kernel.in_focus = false;
    options.kernel.dpc_processors = 1;
    options.kernel.guard_pages = false; // several times faster; AddressSanitizer watches as well
    options.settings["EnableSelectiveSuspend"] = 1;
    return options;
}

// When the moment comes, since the kernel started.
host::Time FindMoment(const Race& race)
{
    Rig rig(RaceOptions({}));
    Port port;
    race.prepare(rig, port);
    while (!race.moment(rig)) {
        rig.RunFor(kTick);
        rig.kernel.RunUntilIdle();
    }
    return rig.kernel.InterruptTime() / kTick * kTick;
}

bool Meet(const host::KernelOptions& kernel, const Race& race, host::Time moment)
{
    Rig rig(RaceOptions(kernel));
    Port port;
    race.prepare(rig, port);
    const host::Time wait = moment != 0 ? kTick : 0;
    if (moment != 0)
        rig.RunFor(moment - wait - rig.kernel.InterruptTime());
    // An open that goes through the whole setting of the line has many more orders, and none that matters here.
    rig.kernel.Faults().Arm(host::FaultPoint::BusRequest, {.detail = "CLASS_INTERFACE", .count = UINT64_MAX});
    rig.kernel.SetFocus(true);
    host::ThreadHandle other = rig.kernel.Spawn("other", [&] {
        rig.RunFor(wait);
        race.other(rig, port);
    });
    rig.RunFor(wait);
    race.one(rig, port);
    other.Join();
    rig.kernel.SetFocus(false);
    rig.kernel.Faults().DisarmAll();

    port.Close();
    if (host::PowerManager::Current().SystemState() != PowerSystemWorking)
        EXPECT_EQ(host::PowerManager::Current().Wake(), STATUS_SUCCESS);
    if (rig.usb_port == nullptr) {
        EXPECT_TRUE(rig.kernel.RunUntil([&] { return rig.Node() == nullptr; }, 60 * kSecond));
        rig.Plug();
    }
    return Streams(rig) && !::testing::Test::HasFailure();
}

class TwoActors : public ::testing::TestWithParam<Race> {};

const Race kRaces[] = {
    {"OpenAndIdleRequest", LeaveAlone, HubIsAsked, LeaveAlone, Open, {"other", "DPC 0", "work 0"}},
    {"OpenAndIdleCallback", AskTheHub, nullptr, LetTheHubSuspend, Open, {"main", "other", "hub"}},
    {"UnplugAndIdleCallback", AskTheHub, nullptr, LetTheHubSuspend, Unplug, {"other", "hub", "PnP"}},
    {"DisableAndIdleCallback", AskTheHub, nullptr, LetTheHubSuspend, DisableAndEnable, {"PnP", "hub"}},
    {"StopAndIdleCallback", AskTheHub, nullptr, LetTheHubSuspend, StopAndRestart, {"PnP", "hub"}},
    // The open cancels the idle request that the module's wake completes.
    {"OpenAndWakeByTheModule", Suspend, nullptr, ModuleWakes, Open, {"main", "other", "DPC 0"}},
    {"OpenAndUnplugWhileAsked", AskTheHub, nullptr, Unplug, TryToOpen, {"main", "other", "PnP"}},
    {"UnplugAndTransfer", ReadTheStream, FixArrives, Unplug, LeaveAlone, {"PnP", "DPC 0", "work 0"}},
    {"LastCloseAndSleep", StartStream, nullptr, Sleep, Close, {"other", "power"}},
    {"QueryStopAndRead", StartStream, nullptr, QueryStopAndCancel, Read, {"PnP", "other"}},
    {"QueryStopAndOpen", LeaveAlone, nullptr, QueryStopAndCancel, TryToOpen, {"PnP", "other"}},
};

TEST_P(TwoActors, MeetInEveryOrder)
{
    const Race& race = GetParam();
    const host::Time moment = race.moment != nullptr ? FindMoment(race) : 0;
    ExpectGoodInEveryOrder(
        100, [&](const host::KernelOptions& kernel) { return Meet(kernel, race, moment); }, race.actors);
}

INSTANTIATE_TEST_SUITE_P(Races, TwoActors, ::testing::ValuesIn(kRaces),
                         [](const auto& info) { return info.param.name; });

// The hub calls back, and the whole of an open comes at one of the first steps of that.
TEST(OpenAndIdleCallback, LeaveTheDeviceAwake)
{
    const Race race = {"", AskTheHub, nullptr, LetTheHubSuspend, Open, {}};
    for (int step = 1; step <= 40; ++step) {
        SCOPED_TRACE(step);
        const std::string schedule = "0 1 0x" + std::to_string(step) + " 1";
        ASSERT_TRUE(Meet({.strategy = host::StrategyKind::Replay, .schedule = schedule}, race, 0));
    }
}

} // namespace
} // namespace navox_test
