// For each rule about devices, Plug and Play, power, WMI and USB a driver that breaks it, and nothing else.
#include "usb_bench.h"

#include <cstring>

namespace {

using host::PnpManager;
using host::Rule;
using host_test::Below;
using host_test::Bench;
using host_test::Complete;
using host_test::MakeDevice;
using host_test::PassDown;
using host_test::UsbBench;

struct BrokenStack {
    Rule rule;
    const char* name;
    std::function<void(UsbBench&)> run;
};

UCHAR MinorOf(PIRP irp)
{
    return IoGetCurrentIrpStackLocation(irp)->MinorFunction;
}

// The driver treats one kind of request in its own way.
void OnMinor(UsbBench& bench, UCHAR major, UCHAR minor, host_test::Dispatch routine)
{
    bench.OnRequest(major, [=](PDEVICE_OBJECT device, PIRP irp) {
        if (MinorOf(irp) == minor)
            return routine(device, irp);
        if (major == IRP_MJ_PNP && MinorOf(irp) == IRP_MN_REMOVE_DEVICE)
            return host_test::RemoveNow(device, irp);
        return PassDown(device, irp);
    });
}

host_test::Dispatch CompleteWith(NTSTATUS status)
{
    return [=](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, status); };
}

// Another device on the bus, whose AddDevice is `add`.
void PlugAnother(UsbBench& bench, std::function<NTSTATUS(PDRIVER_OBJECT, PDEVICE_OBJECT)> add)
{
    PDEVICE_OBJECT device = bench.script.device;
    bench.script.add_device = std::move(add);
    host::UsbBus::Current().Plug(std::make_shared<host_test::FakeDevice>(), {.instance_id = "other"});
    PnpManager::Current().Settle();
    bench.script.device = device;
}

const BrokenStack kDeviceRules[] = {
    {Rule::DeviceDoubleDelete, "deletes a device twice",
     [](UsbBench& bench) {
         PDEVICE_OBJECT device = MakeDevice(bench.driver, u"");
         IoDeleteDevice(device);
         IoDeleteDevice(device);
     }},
    {Rule::DeviceDeletedAttached, "deletes before it detaches",
     [](UsbBench& bench) {
         PDEVICE_OBJECT bottom = MakeDevice(bench.driver, u"");
         PDEVICE_OBJECT top = MakeDevice(bench.driver, u"");
         ObReferenceObject(top);
         IoAttachDeviceToDeviceStack(top, bottom);
         IoDeleteDevice(top);
         IoDetachDevice(bottom);
         ObDereferenceObject(top);
         IoDeleteDevice(bottom);
     }},
    {Rule::DeviceDeletedUnder, "deletes under another device",
     [](UsbBench& bench) {
         PDEVICE_OBJECT bottom = MakeDevice(bench.driver, u"");
         PDEVICE_OBJECT top = MakeDevice(bench.driver, u"");
         ObReferenceObject(bottom);
         IoAttachDeviceToDeviceStack(top, bottom);
         IoDeleteDevice(bottom);
         IoDetachDevice(bottom);
         ObDereferenceObject(bottom);
         IoDeleteDevice(top);
     }},
    {Rule::DeviceDetachNothing, "detaches twice",
     [](UsbBench& bench) {
         PDEVICE_OBJECT bottom = MakeDevice(bench.driver, u"");
         IoDetachDevice(bottom);
         IoDeleteDevice(bottom);
     }},
    {Rule::PnpSameDeviceObject, "attaches a device twice",
     [](UsbBench& bench) {
         PDEVICE_OBJECT bottom = MakeDevice(bench.driver, u"");
         PDEVICE_OBJECT top = MakeDevice(bench.driver, u"");
         IoAttachDeviceToDeviceStack(top, bottom);
         EXPECT_EQ(IoAttachDeviceToDeviceStack(top, bottom), nullptr);
         IoDetachDevice(bottom);
         IoDeleteDevice(top);
         IoDeleteDevice(bottom);
     }},
    {Rule::ObjectDereference, "gives back a reference it has not",
     [](UsbBench& bench) { ObDereferenceObject(bench.script.device); }},
    {Rule::DeviceInitializing, "forgets to clear DO_DEVICE_INITIALIZING",
     [](UsbBench& bench) {
         PlugAnother(bench, [](PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
             const NTSTATUS status = host_test::AttachTo(driver, pdo);
             pdo->AttachedDevice->Flags |= DO_DEVICE_INITIALIZING;
             return status;
         });
     }},
    {Rule::DeviceBothIoFlags, "asks for buffered and direct I/O",
     [](UsbBench& bench) {
         PlugAnother(bench, [](PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
             const NTSTATUS status = host_test::AttachTo(driver, pdo);
             pdo->AttachedDevice->Flags |= DO_DIRECT_IO;
             return status;
         });
     }},
    {Rule::PagableFlagLost, "loses DO_POWER_PAGABLE",
     [](UsbBench& bench) {
         PlugAnother(bench, [](PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
             const NTSTATUS status = host_test::AttachTo(driver, pdo);
             pdo->AttachedDevice->Flags &= ~ULONG{DO_POWER_PAGABLE};
             return status;
         });
     }},
    {Rule::WmiNotDeregistered, "deletes a device registered with WMI",
     [](UsbBench& bench) {
         PDEVICE_OBJECT device = MakeDevice(bench.driver, u"");
         bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, CompleteWith(STATUS_SUCCESS));
         IoWMIRegistrationControl(device, WMIREG_ACTION_REGISTER);
         bench.kernel.RunUntilIdle();
         ObReferenceObject(device);
         IoDeleteDevice(device);
         IoWMIRegistrationControl(device, WMIREG_ACTION_DEREGISTER);
         ObDereferenceObject(device);
         bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, nullptr);
     }},
    {Rule::SymbolicLinkLeak, "leaves its link behind",
     [](UsbBench& bench) {
         host::IoManager::Current().Names().AddLink(u"\\??\\LEFT", u"\\Device\\nowhere");
         EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_SUCCESS);
         EXPECT_EQ(host::IoUnloadDriver("scripted"), STATUS_SUCCESS);
         EXPECT_EQ(host::IoLoadDriver("scripted", host_test::ScriptedEntry, &bench.driver), STATUS_SUCCESS);
     }},
    {Rule::DispatchMissing, "has no power routine",
     [](UsbBench& bench) {
         EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_SUCCESS);
         EXPECT_EQ(host::IoUnloadDriver("scripted"), STATUS_SUCCESS);
         bench.script.has_power = false;
         EXPECT_EQ(host::IoLoadDriver("scripted", host_test::ScriptedEntry, &bench.driver), STATUS_SUCCESS);
     }},
};

const BrokenStack kPnpRules[] = {
    {Rule::PnpCompleted, "completes a query itself",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_QUERY_STOP_DEVICE, CompleteWith(STATUS_SUCCESS));
         PnpManager::Current().QueryStop(bench.Node());
         PnpManager::Current().CancelStop(bench.Node());
     }},
    {Rule::PnpMayNotFail, "fails a cancel",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_CANCEL_STOP_DEVICE, CompleteWith(STATUS_UNSUCCESSFUL));
         PnpManager::Current().QueryStop(bench.Node());
         PnpManager::Current().CancelStop(bench.Node());
     }},
    {Rule::PnpFailedPassedDown, "passes a failed request down",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_QUERY_STOP_DEVICE, [](PDEVICE_OBJECT device, PIRP irp) {
             irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
             return PassDown(device, irp);
         });
         PnpManager::Current().QueryStop(bench.Node());
         PnpManager::Current().CancelStop(bench.Node());
     }},
    {Rule::PnpStatusTouched, "takes back the success of another driver",
     [](UsbBench& bench) {
         PDEVICE_OBJECT upper = nullptr;
         PlugAnother(bench, [&](PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
             const NTSTATUS status = host_test::AttachTo(driver, pdo);
             upper = pdo->AttachedDevice;
             return status;
         });
         PDEVICE_OBJECT filter = MakeDevice(bench.driver, u"");
         filter->Flags |= DO_POWER_PAGABLE;
         IoAttachDeviceToDeviceStack(filter, upper);
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE, [=](PDEVICE_OBJECT device, PIRP irp) {
             if (device == upper)
                 return Complete(irp, STATUS_NOT_SUPPORTED);
             irp->IoStatus.Status = STATUS_SUCCESS;
             return PassDown(device, irp);
         });
         PnpManager::Current().Send(PnpManager::Current().NodeOf(upper), IRP_MN_QUERY_PNP_DEVICE_STATE);
         bench.OnRequest(IRP_MJ_PNP, nullptr);
     }},
    {Rule::PnpRemoveNoDetach, "stays attached after its removal",
     [](UsbBench& bench) {
         PDEVICE_OBJECT stale = bench.script.device;
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE, [](PDEVICE_OBJECT device, PIRP irp) {
             irp->IoStatus.Status = STATUS_SUCCESS;
             return PassDown(device, irp);
         });
         PnpManager::Current().Disable(bench.Node());
         const auto findings = bench.kernel.GetVerifier().TakeFindings();
         ASSERT_EQ(findings.size(), 2U);
         EXPECT_EQ(findings[1].rule, Rule::PnpRemoveNoDelete) << "which is the other half";
         bench.kernel.GetVerifier().Report(findings[0].rule, "", "");
         IoDetachDevice(Below(stale));
         IoDeleteDevice(stale);
     }},
    {Rule::PnpRemoveNoDelete, "is not deleted by its removal",
     [](UsbBench& bench) {
         PDEVICE_OBJECT stale = bench.script.device;
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE, [](PDEVICE_OBJECT device, PIRP irp) {
             PDEVICE_OBJECT lower = Below(device);
             irp->IoStatus.Status = STATUS_SUCCESS;
             const NTSTATUS status = PassDown(device, irp);
             IoDetachDevice(lower);
             return status;
         });
         PnpManager::Current().Disable(bench.Node());
         IoDeleteDevice(stale);
     }},
    {Rule::PnpSurpriseDetach, "detaches when it is surprised",
     [](UsbBench& bench) {
         PDEVICE_OBJECT stale = bench.script.device;
         PDEVICE_OBJECT lower = bench.Lower();
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL, [=](PDEVICE_OBJECT device, PIRP irp) {
             irp->IoStatus.Status = STATUS_SUCCESS;
             const NTSTATUS status = PassDown(device, irp);
             IoDetachDevice(lower);
             return status;
         });
         PnpManager::Current().SurpriseRemove(bench.Node());
         IoDeleteDevice(stale);
     }},
};

VOID NTAPI PowerDone(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
}

PIRP g_kept = nullptr;

const BrokenStack kPowerRules[] = {
    {Rule::PowerNotStartedNext, "does not start the next power request",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, [](PDEVICE_OBJECT device, PIRP irp) {
             IoSkipCurrentIrpStackLocation(irp);
             return PoCallDriver(Below(device), irp);
         });
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerStartedTwice, "starts the next power request twice",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, [](PDEVICE_OBJECT device, PIRP irp) {
             PoStartNextPowerIrp(irp);
             return PassDown(device, irp);
         });
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerCompleted, "completes a power request itself",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, [](PDEVICE_OBJECT, PIRP irp) {
             PoStartNextPowerIrp(irp);
             return Complete(irp, STATUS_SUCCESS);
         });
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerMayNotFail, "fails a set-power request",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, [](PDEVICE_OBJECT, PIRP irp) {
             PoStartNextPowerIrp(irp);
             return Complete(irp, STATUS_INVALID_DEVICE_STATE);
         });
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerFailedPassedDown, "passes a failed power request down",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, [](PDEVICE_OBJECT device, PIRP irp) {
             irp->IoStatus.Status = STATUS_UNSUCCESSFUL;
             return PassDown(device, irp);
         });
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerUpDownOrder, "does not say that it powers down",
     [](UsbBench& bench) {
         bench.RequestPower(PowerDeviceD2);
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerStuck, "keeps a system power request",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_QUERY_POWER, [](PDEVICE_OBJECT, PIRP irp) {
             IoMarkIrpPending(irp);
             g_kept = irp;
             return STATUS_PENDING;
         });
         EXPECT_EQ(host::PowerManager::Current().QuerySystem(PowerSystemSleeping3), STATUS_IO_TIMEOUT);
         PoStartNextPowerIrp(g_kept);
         IoCopyCurrentIrpStackLocationToNext(g_kept);
         PoCallDriver(bench.Lower(), g_kept);
     }},
    {Rule::RequestedPowerIrp, "asks for the request of a set-power",
     [](UsbBench& bench) {
         KEVENT done;
         KeInitializeEvent(&done, NotificationEvent, FALSE);
         POWER_STATE state{};
         state.DeviceState = PowerDeviceD0;
         PIRP irp = nullptr;
         PoRequestPowerIrp(bench.Node()->pdo, IRP_MN_SET_POWER, state, PowerDone, &done, &irp);
         KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
     }},
    {Rule::DeviceDeletedWithPower, "deletes a device that has a power request",
     [](UsbBench& bench) {
         PDEVICE_OBJECT device = MakeDevice(bench.driver, u"");
         ObReferenceObject(device);
         auto old = bench.script.on[IRP_MJ_POWER];
         bench.OnRequest(IRP_MJ_POWER, [](PDEVICE_OBJECT, PIRP irp) {
             IoMarkIrpPending(irp);
             g_kept = irp;
             return STATUS_PENDING;
         });
         POWER_STATE state{};
         state.DeviceState = PowerDeviceD0;
         PoRequestPowerIrp(device, IRP_MN_SET_POWER, state, nullptr, nullptr, nullptr);
         IoDeleteDevice(device);
         PoStartNextPowerIrp(g_kept);
         Complete(g_kept, STATUS_SUCCESS);
         ObDereferenceObject(device);
         bench.OnRequest(IRP_MJ_POWER, old);
     }},
    {Rule::WmiWrongProvider, "completes a WMI request of another device",
     [](UsbBench& bench) {
         PIRP irp = IoAllocateIrp(2, FALSE);
         PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
         next->MajorFunction = IRP_MJ_SYSTEM_CONTROL;
         next->Parameters.WMI.ProviderId = 1;
         IoSetCompletionRoutine(
             irp,
             [](PDEVICE_OBJECT, PIRP, PVOID) NTAPI -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; },
             nullptr, TRUE, TRUE, TRUE);
         bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, CompleteWith(STATUS_SUCCESS));
         IoCallDriver(bench.script.device, irp);
         IoFreeIrp(irp);
     }},
    {Rule::WmiNotCompleted, "lets its WMI request pass",
     [](UsbBench& bench) {
         IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_REGISTER);
         bench.kernel.RunUntilIdle();
         IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_DEREGISTER);
     }},
    {Rule::WmiBadAnswer, "gives a WMI answer that is none",
     [](UsbBench& bench) {
         bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, [](PDEVICE_OBJECT, PIRP irp) {
             auto* answer = static_cast<PULONG>(IoGetCurrentIrpStackLocation(irp)->Parameters.WMI.Buffer);
             answer[4] = 1000; // GUIDs, in a buffer of 20 bytes
             return Complete(irp, STATUS_SUCCESS, 20);
         });
         IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_REGISTER);
         bench.kernel.RunUntilIdle();
         IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_DEREGISTER);
     }},
};

const BrokenStack kUsbRules[] = {
    {Rule::UrbReused, "submits a URB that is in flight",
     [](UsbBench& bench) {
         bench.Configure();
         const auto flight = bench.StartIn(8);
         auto again = std::unique_ptr<URB>(flight->urb.get());
         const auto second = bench.Submit(std::move(again));
         bench.Land(second);
         second->urb.release();
         IoCancelIrp(flight->irp);
         bench.Land(flight);
     }},
    {Rule::UrbMalformed, "gives a URB a wrong length",
     [](UsbBench& bench) {
         bench.Configure();
         std::vector<UCHAR> buffer(8);
         auto urb = UsbBench::TransferUrb(bench.bulk_in, buffer, 0);
         urb->UrbHeader.Length = sizeof(URB);
         bench.Land(bench.Submit(std::move(urb), std::move(buffer)));
     }},
    {Rule::UrbPipeStale, "uses a handle that never was one",
     [](UsbBench& bench) {
         bench.Configure();
         bench.PipeRequest(URB_FUNCTION_ABORT_PIPE, &bench);
     }},
    {Rule::UrbNotInD0, "submits while the device is suspended",
     [](UsbBench& bench) {
         bench.Configure();
         POWER_STATE state{};
         state.DeviceState = PowerDeviceD2;
         PoSetPowerState(bench.script.device, DevicePowerState, state);
         bench.RequestPower(PowerDeviceD2);
         bench.Land(bench.StartIn(8));
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::UrbAfterRemove, "submits after its removal",
     [](UsbBench& bench) {
         bench.Configure();
         EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_SUCCESS);
         bench.Land(bench.StartIn(8));
     }},
    {Rule::UrbBadIrql, "resets a pipe from a spin lock's IRQL",
     [](UsbBench& bench) {
         bench.Configure();
         auto urb = std::make_unique<URB>();
         std::memset(static_cast<void*>(urb.get()), 0, sizeof(URB));
         urb->UrbPipeRequest.Hdr = {sizeof(_URB_PIPE_REQUEST), URB_FUNCTION_ABORT_PIPE, 0, nullptr, 0};
         urb->UrbPipeRequest.PipeHandle = bench.bulk_in;
         KIRQL irql = PASSIVE_LEVEL;
         KeRaiseIrql(DISPATCH_LEVEL, &irql);
         const auto flight = bench.Submit(std::move(urb));
         KeLowerIrql(irql);
         bench.Land(flight);
     }},
};

void Judge(std::span<const BrokenStack> stacks)
{
    for (const BrokenStack& stack : stacks) {
        SCOPED_TRACE(std::string(NameOf(stack.rule)) + ": a driver that " + stack.name);
        UsbBench bench;
        EXPECT_TRUE(bench.Broken().empty());
        stack.run(bench);
        EXPECT_EQ(bench.Broken(), std::vector{stack.rule});
        bench.script.on = {};
    }
}

TEST(VerifierOfDevices, CatchesBadDevices)
{
    Judge(kDeviceRules);
}

TEST(VerifierOfDevices, CatchesBadPlugAndPlay)
{
    Judge(kPnpRules);
}

TEST(VerifierOfDevices, CatchesBadPowerAndWmi)
{
    Judge(kPowerRules);
}

TEST(VerifierOfDevices, CatchesBadUrbs)
{
    Judge(kUsbRules);
}

TEST(VerifierOfDevices, FindsADeviceThatIsLeft)
{
    std::vector<Rule> left;
    host::KernelOptions options = Bench::Recording();
    options.on_finding = [&](const host::Finding& finding) { left.push_back(finding.rule); };
    {
        Bench bench(options);
        MakeDevice(bench.driver, u"");
        MakeDevice(bench.driver, u"");
    }
    EXPECT_EQ(left, (std::vector{Rule::DeviceLeak, Rule::DeviceLeak}));
}

} // namespace
