// Power: one request at a time, the sleep of the system, wake-up, and the hub's idle notification.
#include "usb_bench.h"

#include "po/power_manager.h"

namespace {

using host::PowerManager;
using host::Rule;
using host_test::Below;
using host_test::Complete;
using host_test::FakeDevice;
using host_test::PassDown;
using host_test::UsbBench;

struct PowerCall {
    UCHAR minor;
    POWER_STATE_TYPE type;
    ULONG state;
    bool operator==(const PowerCall&) const = default;
};

PowerCall CallOf(PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    return {location->MinorFunction, location->Parameters.Power.Type,
            static_cast<ULONG>(location->Parameters.Power.State.SystemState)};
}

// A power policy owner of the simplest kind: reports, passes down, and notes what it saw.
class Sleeper : public UsbBench {
  public:
    explicit Sleeper(host::KernelOptions options = Recording(), host::UsbPortOptions port = {})
        : UsbBench(std::move(options), std::move(port))
    {
        OnRequest(IRP_MJ_POWER, [this](PDEVICE_OBJECT object, PIRP irp) {
            calls.push_back(CallOf(irp));
            levels.push_back(KeGetCurrentIrql());
            if (calls.back().minor == IRP_MN_QUERY_POWER && refusal != STATUS_SUCCESS) {
                PoStartNextPowerIrp(irp);
                return Complete(irp, refusal);
            }
            if (calls.back().minor == IRP_MN_SET_POWER) {
                POWER_STATE state{};
                state.SystemState = static_cast<SYSTEM_POWER_STATE>(calls.back().state);
                PoSetPowerState(object, calls.back().type, state);
            }
            return PassDown(object, irp);
        });
    }

    std::vector<PowerCall> calls;
    std::vector<KIRQL> levels;
    NTSTATUS refusal = STATUS_SUCCESS;
};

class Power : public testing::Test {
  protected:
    Sleeper bench;
};

TEST_F(Power, TheBusSuspendsAndResumesTheDevice)
{
    EXPECT_EQ(bench.RequestPower(PowerDeviceD2), STATUS_PENDING);
    EXPECT_EQ(bench.port->PowerState(), PowerDeviceD2);
    EXPECT_TRUE(bench.device->suspended);
    EXPECT_EQ(PowerManager::Current().ReportedState(bench.script.device), PowerDeviceD2);
    EXPECT_EQ(bench.RequestPower(PowerDeviceD0), STATUS_PENDING);
    EXPECT_FALSE(bench.device->suspended);
    EXPECT_EQ(bench.calls, (std::vector<PowerCall>{{IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD2},
                                                   {IRP_MN_SET_POWER, DevicePowerState, PowerDeviceD0}}));
}

TEST_F(Power, ARequestFromADpcIsSentAtPassiveLevel)
{
    const POWER_STATE state{.DeviceState = PowerDeviceD0};
    const KIRQL irql = KfRaiseIrql(DISPATCH_LEVEL);
    EXPECT_EQ(PoRequestPowerIrp(bench.Node()->pdo, IRP_MN_SET_POWER, state, nullptr, nullptr, nullptr),
              STATUS_PENDING);
    KeLowerIrql(irql);
    bench.kernel.RunUntilIdle();
    ASSERT_EQ(bench.levels.size(), 1U);
    EXPECT_EQ(bench.levels[0], PASSIVE_LEVEL);
    EXPECT_EQ(PoRequestPowerIrp(bench.Node()->pdo, IRP_MN_POWER_SEQUENCE, state, nullptr, nullptr, nullptr),
              STATUS_INVALID_PARAMETER_2);
}

// Requests that the driver keeps until the test lets them go.
TEST(PowerTables, ASecondRequestWaitsUntilTheNextIsStarted)
{
    UsbBench bench;
    std::vector<PIRP> kept;
    bench.OnRequest(IRP_MJ_POWER, [&](PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        kept.push_back(irp);
        return STATUS_PENDING;
    });
    const auto finish = [&](std::size_t index) {
        IoCopyCurrentIrpStackLocationToNext(kept[index]);
        PoCallDriver(bench.Lower(), kept[index]);
    };
    const POWER_STATE state{.DeviceState = PowerDeviceD0};
    const auto request = [&](UCHAR minor) {
        PoRequestPowerIrp(bench.Node()->pdo, minor, state, nullptr, nullptr, nullptr);
        bench.kernel.RunUntilIdle();
    };
    request(IRP_MN_SET_POWER);
    request(IRP_MN_SET_POWER);
    EXPECT_EQ(kept.size(), 1U) << "the second waits";
    request(IRP_MN_WAIT_WAKE);
    EXPECT_EQ(kept.size(), 2U) << "wait-wake does not";
    host::ThreadHandle sleeper = bench.kernel.Spawn(
        "sleeper", [&] { EXPECT_EQ(PowerManager::Current().SetSystem(PowerSystemWorking), STATUS_SUCCESS); });
    bench.kernel.RunUntilIdle();
    EXPECT_EQ(kept.size(), 3U) << "nor does a system request";
    PoStartNextPowerIrp(kept[0]);
    bench.kernel.RunUntilIdle();
    ASSERT_EQ(kept.size(), 4U) << "now it comes";
    finish(0);
    for (const std::size_t index : {1U, 2U, 3U}) {
        PoStartNextPowerIrp(kept[index]);
        finish(index);
    }
    sleeper.Join();
    UsbBench::Unplug(bench.port); // ends the wait for a wake-up
    bench.OnRequest(IRP_MJ_POWER, nullptr);
}

struct SleepCase {
    NTSTATUS device, neighbour; // what they say
    std::vector<PowerCall> calls;
    SYSTEM_POWER_STATE state;
};

TEST(PowerTables, TheSystemAsksBeforeItSleeps)
{
    const PowerCall query{IRP_MN_QUERY_POWER, SystemPowerState, PowerSystemSleeping3};
    const PowerCall sleep{IRP_MN_SET_POWER, SystemPowerState, PowerSystemSleeping3};
    const PowerCall work{IRP_MN_SET_POWER, SystemPowerState, PowerSystemWorking};
    const SleepCase cases[] = {
        {STATUS_SUCCESS, STATUS_SUCCESS, {query, sleep}, PowerSystemSleeping3},
        {STATUS_DEVICE_BUSY, STATUS_SUCCESS, {query, work}, PowerSystemWorking},
        {STATUS_SUCCESS, STATUS_UNSUCCESSFUL, {query, work}, PowerSystemWorking},
    };
    for (const SleepCase& item : cases) {
        Sleeper bench;
        bench.refusal = item.device;
        PowerManager::Current().SetNeighbour([&](SYSTEM_POWER_STATE) { return item.neighbour; });
        EXPECT_EQ(PowerManager::Current().Sleep(PowerSystemSleeping3),
                  item.device == STATUS_SUCCESS ? item.neighbour : item.device);
        EXPECT_EQ(bench.calls, item.calls);
        EXPECT_EQ(PowerManager::Current().SystemState(), item.state);
        EXPECT_EQ(PowerManager::Current().Wake(), STATUS_SUCCESS);
        EXPECT_EQ(bench.calls.back(), work);
    }
}

struct Waited {
    NTSTATUS status = STATUS_PENDING;
    PIRP irp = nullptr;
    explicit Waited(UsbBench& bench)
    {
        const POWER_STATE state{.SystemState = PowerSystemWorking};
        EXPECT_EQ(PoRequestPowerIrp(bench.Node()->pdo, IRP_MN_WAIT_WAKE, state, Done, this, &irp),
                  STATUS_PENDING);
    }
    static VOID NTAPI Done(PDEVICE_OBJECT, UCHAR minor, POWER_STATE, PVOID context, PIO_STATUS_BLOCK block)
    {
        EXPECT_EQ(minor, IRP_MN_WAIT_WAKE);
        static_cast<Waited*>(context)->status = block->Status;
    }
};

TEST_F(Power, ADeviceWakesTheDriverThatWaits)
{
    const Waited waited(bench);
    const Waited second(bench);
    EXPECT_EQ(second.status, STATUS_DEVICE_BUSY);
    bench.RequestPower(PowerDeviceD2);
    bench.kernel.RunFor(host::kSecond);
    EXPECT_EQ(waited.status, STATUS_PENDING);
    bench.Tell([](FakeDevice& device) { device.wants_resume = true; });
    bench.kernel.RunUntilIdle();
    EXPECT_EQ(waited.status, STATUS_SUCCESS);
    bench.RequestPower(PowerDeviceD0);
}

TEST_F(Power, AWaitForWakeUpCanBeCancelled)
{
    const Waited waited(bench);
    EXPECT_TRUE(IoCancelIrp(waited.irp));
    EXPECT_EQ(waited.status, STATUS_CANCELLED);
}

// The idle notification, as a driver with selective suspend sends it.
class Idler : public Sleeper {
  public:
    using Sleeper::Sleeper;

    static VOID NTAPI Callback(PVOID context)
    {
        auto* self = static_cast<Idler*>(context);
        ++self->callbacks;
        self->callback_irql = KeGetCurrentIrql();
        if (self->obeys)
            self->RequestPower(PowerDeviceD2);
    }
    static NTSTATUS NTAPI Ended(PDEVICE_OBJECT, PIRP irp, PVOID context)
    {
        static_cast<Idler*>(context)->ended = irp->IoStatus.Status;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PIRP Send()
    {
        ended = STATUS_PENDING;
        PIRP irp = IoAllocateIrp(Lower()->StackSize, FALSE);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION;
        next->Parameters.DeviceIoControl.InputBufferLength = sizeof info;
        next->Parameters.DeviceIoControl.Type3InputBuffer = &info;
        IoSetCompletionRoutine(irp, Ended, this, TRUE, TRUE, TRUE);
        answer = IoCallDriver(Lower(), irp);
        return irp;
    }

    USB_IDLE_CALLBACK_INFO info{Callback, this};
    int callbacks = 0;
    KIRQL callback_irql = HIGH_LEVEL;
    bool obeys = true;
    NTSTATUS answer = 0;
    NTSTATUS ended = 0;
};

class Idle : public testing::Test {
  protected:
    Idler bench;
};

TEST_F(Idle, TheHubCallsBackAndTheDeviceSuspendsUntilItWantsSomething)
{
    bench.port->AllowIdle(false);
    PIRP irp = bench.Send();
    EXPECT_EQ(bench.answer, STATUS_PENDING);
    bench.kernel.RunFor(host::kSecond);
    EXPECT_EQ(bench.callbacks, 0) << "the hub is not ready";
    bench.port->AllowIdle(true);
    bench.kernel.RunUntilIdle();
    EXPECT_EQ(bench.callbacks, 1);
    EXPECT_EQ(bench.callback_irql, PASSIVE_LEVEL);
    EXPECT_TRUE(bench.device->suspended);
    EXPECT_EQ(bench.ended, STATUS_PENDING);
    bench.Tell([](FakeDevice& device) { device.wants_resume = true; });
    bench.kernel.RunUntilIdle();
    EXPECT_EQ(bench.ended, STATUS_SUCCESS);
    IoFreeIrp(irp);
    bench.RequestPower(PowerDeviceD0);
}

enum class IdleEnd { Cancelled, PoweredUp, Unplugged };
using IdleCase = std::tuple<IdleEnd, NTSTATUS>;

TEST(IdleTables, TheRequestEndsByWhateverComesFirst)
{
    const IdleCase cases[] = {
        {IdleEnd::Cancelled, STATUS_CANCELLED},
        {IdleEnd::PoweredUp, STATUS_SUCCESS},
        {IdleEnd::Unplugged, STATUS_DEVICE_NOT_CONNECTED},
    };
    for (const auto& [end, status] : cases) {
        Idler bench;
        PIRP irp = bench.Send();
        bench.kernel.RunUntilIdle();
        EXPECT_TRUE(bench.port->IdleRequested());
        if (end == IdleEnd::Cancelled)
            EXPECT_TRUE(IoCancelIrp(irp));
        if (end == IdleEnd::PoweredUp)
            bench.RequestPower(PowerDeviceD0);
        if (end == IdleEnd::Unplugged) {
            UsbBench::Unplug(bench.port);
        }
        EXPECT_EQ(bench.ended, status);
        EXPECT_FALSE(bench.port->IdleRequested());
        IoFreeIrp(irp);
    }
}

TEST(IdleTables, BadRequestsAreRefused)
{
    host::UsbPortOptions plain;
    plain.supports_idle = false;
    Idler without(Idler::Recording(), plain);
    IoFreeIrp(without.Send());
    EXPECT_EQ(without.answer, STATUS_NOT_SUPPORTED);
}

TEST_F(Idle, TheVerifierWatchesTheHandShake)
{
    bench.port->AllowIdle(false);
    PIRP first = bench.Send();
    PIRP second = bench.Send();
    EXPECT_EQ(bench.answer, STATUS_DEVICE_BUSY);
    EXPECT_EQ(bench.Broken(), std::vector{Rule::IdleRequestTwice});
    IoFreeIrp(second);
    bench.obeys = false;
    bench.port->AllowIdle(true);
    bench.kernel.RunUntilIdle();
    EXPECT_EQ(bench.callbacks, 1);
    EXPECT_EQ(bench.Broken(), std::vector{Rule::IdleNotPoweredDown});
    EXPECT_TRUE(IoCancelIrp(first));
    IoFreeIrp(first);
    bench.RequestPower(PowerDeviceD2);
    IoFreeIrp(bench.Send());
    EXPECT_EQ(bench.answer, STATUS_POWER_STATE_INVALID);
    EXPECT_EQ(bench.Broken(), std::vector{Rule::IdleNotInD0});
    bench.RequestPower(PowerDeviceD0);
}

} // namespace
