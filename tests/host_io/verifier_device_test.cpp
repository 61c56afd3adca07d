// For each rule about devices, Plug and Play, power, WMI and USB a driver that breaks it, and nothing else.
#include "usb_bench.h"

#include <cstring>

namespace {

using host::PnpManager;
using host::Rule;
using host_test::Below;
using host_test::Complete;
using host_test::Dispatch;
using host_test::Keep;
using host_test::Kept;
using host_test::MakeDevice;
using host_test::PassDown;
using host_test::UsbBench;

using Story = std::function<void(UsbBench&)>;

struct BrokenStack {
    Rule rule;
    const char* name;
    Story run;
};

// The driver treats one kind of request in its own way.
void OnMinor(UsbBench& bench, UCHAR major, UCHAR minor, const Dispatch& routine)
{
    bench.OnRequest(major, [=](PDEVICE_OBJECT device, PIRP irp) {
        const UCHAR its = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
        if (its == minor)
            return routine(device, irp);
        if (major == IRP_MJ_PNP && its == IRP_MN_REMOVE_DEVICE)
            return host_test::RemoveNow(device, irp);
        return PassDown(device, irp);
    });
}

Dispatch CompleteWith(NTSTATUS status, ULONG_PTR information = 0)
{
    return [=](PDEVICE_OBJECT, PIRP irp) { return Complete(irp, status, information); };
}

Dispatch PassDownWith(NTSTATUS status)
{
    return [=](PDEVICE_OBJECT device, PIRP irp) {
        irp->IoStatus.Status = status;
        return PassDown(device, irp);
    };
}

Dispatch PassDownThenDetach()
{
    return [](PDEVICE_OBJECT device, PIRP irp) {
        PDEVICE_OBJECT lower = Below(device);
        const NTSTATUS status = PassDownWith(STATUS_SUCCESS)(device, irp);
        IoDetachDevice(lower);
        return status;
    };
}

// Another device on the bus, whose AddDevice is AttachTo and then `change`.
void PlugAnother(UsbBench& bench, const std::function<void(PDEVICE_OBJECT)>& change)
{
    PDEVICE_OBJECT device = bench.script.device;
    bench.script.add_device = [=](PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
        const NTSTATUS status = host_test::AttachTo(driver, pdo);
        change(pdo->AttachedDevice);
        return status;
    };
    UsbBench::Plug(std::make_shared<host_test::FakeDevice>(), {.instance_id = "other"});
    bench.script.device = device;
}

Story AddsADevice(void (*change)(PDEVICE_OBJECT))
{
    return [=](UsbBench& bench) { PlugAnother(bench, change); };
}

// Of two devices, one above the other.
Story DeletesOne(bool upper)
{
    return [=](UsbBench& bench) {
        PDEVICE_OBJECT bottom = MakeDevice(bench.driver, u"");
        PDEVICE_OBJECT top = MakeDevice(bench.driver, u"");
        PDEVICE_OBJECT one = upper ? top : bottom;
        ObReferenceObject(one);
        IoAttachDeviceToDeviceStack(top, bottom);
        IoDeleteDevice(one);
        IoDetachDevice(bottom);
        ObDereferenceObject(one);
        IoDeleteDevice(upper ? bottom : top);
    };
}

Story LoadsAgain(const std::function<void(UsbBench&)>& before)
{
    return [=](UsbBench& bench) {
        EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_SUCCESS);
        before(bench);
        EXPECT_EQ(host::IoUnloadDriver("scripted"), STATUS_SUCCESS);
        EXPECT_EQ(host::IoLoadDriver("scripted", host_test::ScriptedEntry, &bench.driver), STATUS_SUCCESS);
    };
}

// A stop is asked for and called off.
Story Stops(UCHAR minor, const Dispatch& routine)
{
    return [=](UsbBench& bench) {
        OnMinor(bench, IRP_MJ_PNP, minor, routine);
        PnpManager::Current().QueryStop(bench.Node());
        PnpManager::Current().CancelStop(bench.Node());
    };
}

// A set-power request for D0 comes.
Story PowersUp(const Dispatch& routine)
{
    return [=](UsbBench& bench) {
        OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, routine);
        bench.RequestPower(PowerDeviceD0);
    };
}

Dispatch CompletePowerWith(NTSTATUS status)
{
    return [=](PDEVICE_OBJECT, PIRP irp) {
        PoStartNextPowerIrp(irp);
        return Complete(irp, status);
    };
}

VOID NTAPI PowerDone(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
}

constexpr POWER_STATE DeviceState(DEVICE_POWER_STATE state)
{
    return {.DeviceState = state};
}

// The driver passes on at last what it kept, and keeps no more.
void LetGo(UsbBench& bench)
{
    bench.OnRequest(IRP_MJ_POWER, nullptr);
    PoStartNextPowerIrp(Kept());
    IoCopyCurrentIrpStackLocationToNext(Kept());
    PoCallDriver(bench.Lower(), Kept());
}

// A filter above says yes, and the driver `answer`s.
Story TakesBack(UCHAR major, UCHAR minor, const Dispatch& answer)
{
    return [=](UsbBench& bench) {
        PDEVICE_OBJECT upper = nullptr;
        PlugAnother(bench, [&](PDEVICE_OBJECT device) { upper = device; });
        PDEVICE_OBJECT filter = MakeDevice(bench.driver, u"");
        filter->Flags |= DO_POWER_PAGABLE;
        IoAttachDeviceToDeviceStack(filter, upper);
        OnMinor(bench, major, minor, [=](PDEVICE_OBJECT device, PIRP irp) {
            return (device == upper ? answer : PassDownWith(STATUS_SUCCESS))(device, irp);
        });
        const host::PnpNodePtr node = PnpManager::Current().NodeOf(upper);
        if (major == IRP_MJ_PNP)
            PnpManager::Current().Send(node, minor);
        else
            PoRequestPowerIrp(node->pdo, minor, DeviceState(PowerDeviceD0), nullptr, nullptr, nullptr);
        bench.kernel.RunUntilIdle();
        bench.OnRequest(major, nullptr);
    };
}

constexpr UCHAR kUnknown = 0x7F; // a minor code

NTSTATUS ChangeAndPassDown(PDEVICE_OBJECT device, PIRP irp)
{
    irp->IoStatus.Information = 1;
    return PassDown(device, irp);
}

// Waits for the drivers below, and then gives an answer of its own.
NTSTATUS PassDownAndChange(PDEVICE_OBJECT device, PIRP irp)
{
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(
        irp, [](PDEVICE_OBJECT, PIRP, PVOID) NTAPI -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; },
        nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(Below(device), irp);
    return Complete(irp, STATUS_UNSUCCESSFUL);
}

// A request that nobody knows comes.
Story TreatsTheUnknown(UCHAR major, const Dispatch& routine)
{
    return [=](UsbBench& bench) {
        OnMinor(bench, major, kUnknown, routine);
        if (major == IRP_MJ_POWER)
            host::PowerManager::Current().Send(bench.Node(), kUnknown);
        else
            host::IopSendAndWait(bench.script.device, major, kUnknown, STATUS_NOT_SUPPORTED);
    };
}

// A driver makes a request of its own, without a status, and sends it to its own stack.
void SendOwn(UsbBench& bench, UCHAR major, UCHAR minor, NTSTATUS status, ULONG_PTR provider)
{
    PIRP irp = IoAllocateIrp(2, FALSE);
    irp->IoStatus.Status = status;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->MinorFunction = minor;
    next->Parameters.WMI.ProviderId = provider;
    IoSetCompletionRoutine(
        irp, [](PDEVICE_OBJECT, PIRP, PVOID) NTAPI -> NTSTATUS { return STATUS_MORE_PROCESSING_REQUIRED; },
        nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(bench.script.device, irp);
    IoFreeIrp(irp);
}

// The device is registered with WMI for a while.
Story Registers(const Dispatch& answer)
{
    return [=](UsbBench& bench) {
        bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, answer);
        IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_REGISTER);
        bench.kernel.RunUntilIdle();
        IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_DEREGISTER);
    };
}

const BrokenStack kStacks[] = {
    // Devices.
    {Rule::DeviceDoubleDelete, "deletes a device twice",
     [](UsbBench& bench) {
         PDEVICE_OBJECT device = MakeDevice(bench.driver, u"");
         IoDeleteDevice(device);
         IoDeleteDevice(device);
     }},
    {Rule::DeviceDeletedAttached, "deletes before it detaches", DeletesOne(true)},
    {Rule::DeviceDeletedUnder, "deletes under another device", DeletesOne(false)},
    {Rule::DeviceDetachNothing, "detaches twice",
     [](UsbBench& bench) {
         PDEVICE_OBJECT bottom = MakeDevice(bench.driver, u"");
         IoDetachDevice(bottom);
         IoDeleteDevice(bottom);
     }},
    {Rule::PnpSameDeviceObject, "attaches a device twice",
     [](UsbBench& bench) {
         EXPECT_EQ(IoAttachDeviceToDeviceStack(bench.script.device, bench.Lower()), nullptr);
     }},
    {Rule::ObjectDereference, "gives back a reference it has not",
     [](UsbBench& bench) { ObDereferenceObject(bench.script.device); }},
    {Rule::DeviceInitializing, "forgets to clear DO_DEVICE_INITIALIZING",
     AddsADevice([](PDEVICE_OBJECT device) { device->Flags |= DO_DEVICE_INITIALIZING; })},
    {Rule::DeviceBothIoFlags, "asks for buffered and direct I/O",
     AddsADevice([](PDEVICE_OBJECT device) { device->Flags |= DO_DIRECT_IO; })},
    {Rule::PagableFlagLost, "loses DO_POWER_PAGABLE",
     AddsADevice([](PDEVICE_OBJECT device) { device->Flags &= ~ULONG{DO_POWER_PAGABLE}; })},
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
    {Rule::SymbolicLinkLeak, "leaves its link behind", LoadsAgain([](UsbBench&) {
         host::IoManager::Current().Names().AddLink(u"\\??\\LEFT", u"\\Device\\nowhere");
     })},
    {Rule::DispatchMissing, "has no power routine",
     LoadsAgain([](UsbBench& bench) { bench.script.has_power = false; })},
    // Plug and Play.
    {Rule::PnpCompleted, "completes a query itself",
     Stops(IRP_MN_QUERY_STOP_DEVICE, CompleteWith(STATUS_SUCCESS))},
    {Rule::PnpMayNotFail, "fails a cancel",
     Stops(IRP_MN_CANCEL_STOP_DEVICE, CompleteWith(STATUS_UNSUCCESSFUL))},
    {Rule::PnpFailedPassedDown, "passes a failed request down",
     Stops(IRP_MN_QUERY_STOP_DEVICE, PassDownWith(STATUS_UNSUCCESSFUL))},
    {Rule::PnpStatusTouched, "takes back the success of another driver",
     TakesBack(IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE, CompleteWith(STATUS_NOT_SUPPORTED))},
    {Rule::PnpRemoveNoDetach, "stays attached after its removal",
     [](UsbBench& bench) {
         PDEVICE_OBJECT stale = bench.script.device;
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE, PassDownWith(STATUS_SUCCESS));
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
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_REMOVE_DEVICE, PassDownThenDetach());
         PnpManager::Current().Disable(bench.Node());
         IoDeleteDevice(stale);
     }},
    {Rule::PnpSurpriseDetach, "detaches when it is surprised",
     [](UsbBench& bench) {
         PDEVICE_OBJECT stale = bench.script.device;
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL, PassDownThenDetach());
         PnpManager::Current().SurpriseRemove(bench.Node());
         IoDeleteDevice(stale);
     }},
    {Rule::PnpInterfaceLeft, "leaves its interface enabled when it is surprised",
     [](UsbBench& bench) {
         static constexpr GUID kClass = {1, 2, 3, {}};
         UNICODE_STRING name{};
         IoRegisterDeviceInterface(bench.Node()->pdo, &kClass, nullptr, &name);
         IoSetDeviceInterfaceState(&name, TRUE);
         PnpManager::Current().SurpriseRemove(bench.Node());
         RtlFreeUnicodeString(&name);
     }},
    {Rule::PnpUnknownTouched, "changes a Plug and Play request that it cannot know",
     TreatsTheUnknown(IRP_MJ_PNP, ChangeAndPassDown)},
    {Rule::PnpUnknownTouched, "completes a Plug and Play request that it cannot know",
     TreatsTheUnknown(IRP_MJ_PNP, CompleteWith(STATUS_SUCCESS))},
    {Rule::PnpUnknownTouched, "changes what the drivers below said to a request that it cannot know",
     TreatsTheUnknown(IRP_MJ_PNP, PassDownAndChange)},
    {Rule::PnpUntouchedCompleted, "completes a query that it does not handle",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE, CompleteWith(STATUS_NOT_SUPPORTED));
         PnpManager::Current().Send(bench.Node(), IRP_MN_QUERY_PNP_DEVICE_STATE);
     }},
    {Rule::PnpInitialStatus, "sends a query that is answered already",
     [](UsbBench& bench) { SendOwn(bench, IRP_MJ_PNP, IRP_MN_QUERY_PNP_DEVICE_STATE, STATUS_SUCCESS, 0); }},
    // Power.
    {Rule::PowerStatusTouched, "takes back the consent of another driver",
     TakesBack(IRP_MJ_POWER, IRP_MN_QUERY_POWER, CompletePowerWith(STATUS_NOT_SUPPORTED))},
    {Rule::PowerNotStartedNext, "does not start the next power request",
     PowersUp([](PDEVICE_OBJECT device, PIRP irp) {
         IoSkipCurrentIrpStackLocation(irp);
         return PoCallDriver(Below(device), irp);
     })},
    {Rule::PowerStartedTwice, "starts the next power request twice",
     PowersUp([](PDEVICE_OBJECT device, PIRP irp) {
         PoStartNextPowerIrp(irp);
         return PassDown(device, irp);
     })},
    {Rule::PowerCompleted, "completes a power request itself", PowersUp(CompletePowerWith(STATUS_SUCCESS))},
    {Rule::PowerMayNotFail, "fails a set-power request",
     PowersUp(CompletePowerWith(STATUS_INVALID_DEVICE_STATE))},
    {Rule::PowerFailedPassedDown, "passes a failed power request down",
     PowersUp(PassDownWith(STATUS_UNSUCCESSFUL))},
    {Rule::PowerUntouchedCompleted, "completes a power request that it does not handle",
     TreatsTheUnknown(IRP_MJ_POWER, CompletePowerWith(STATUS_NOT_SUPPORTED))},
    {Rule::PowerUnknownTouched, "completes a power request that it cannot know",
     TreatsTheUnknown(IRP_MJ_POWER, CompletePowerWith(STATUS_SUCCESS))},
    {Rule::PowerUnknownTouched, "changes a power request that it cannot know",
     TreatsTheUnknown(IRP_MJ_POWER, ChangeAndPassDown)},
    {Rule::PowerUpDownOrder, "does not say that it powers down",
     [](UsbBench& bench) {
         bench.RequestPower(PowerDeviceD2);
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::PowerStuck, "keeps a system power request",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_QUERY_POWER, Keep);
         EXPECT_EQ(host::PowerManager::Current().QuerySystem(PowerSystemSleeping3), STATUS_IO_TIMEOUT);
         LetGo(bench);
     }},
    {Rule::PowerStuck, "keeps a device power request",
     [](UsbBench& bench) {
         OnMinor(bench, IRP_MJ_POWER, IRP_MN_SET_POWER, Keep);
         PoRequestPowerIrp(bench.Node()->pdo, IRP_MN_SET_POWER, DeviceState(PowerDeviceD0), nullptr, nullptr,
                           nullptr);
         bench.kernel.RunFor(599 * host::kSecond);
         EXPECT_EQ(bench.Broken(), std::vector<Rule>{});
         bench.kernel.RunFor(2 * host::kSecond);
         LetGo(bench);
         bench.RequestPower(PowerDeviceD0); // in time
         bench.kernel.RunFor(601 * host::kSecond);
     }},
    {Rule::RequestedPowerIrp, "asks for the request of a set-power",
     [](UsbBench& bench) {
         KEVENT done;
         KeInitializeEvent(&done, NotificationEvent, FALSE);
         PIRP irp = nullptr;
         PoRequestPowerIrp(bench.Node()->pdo, IRP_MN_SET_POWER, DeviceState(PowerDeviceD0), PowerDone, &done,
                           &irp);
         KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
     }},
    {Rule::DeviceDeletedWithPower, "deletes a device that has a power request",
     [](UsbBench& bench) {
         PDEVICE_OBJECT device = MakeDevice(bench.driver, u"");
         ObReferenceObject(device);
         bench.OnRequest(IRP_MJ_POWER, Keep);
         PoRequestPowerIrp(device, IRP_MN_SET_POWER, DeviceState(PowerDeviceD0), nullptr, nullptr, nullptr);
         IoDeleteDevice(device);
         PoStartNextPowerIrp(Kept());
         Complete(Kept(), STATUS_SUCCESS);
         ObDereferenceObject(device);
     }},
    // WMI.
    {Rule::WmiWrongProvider, "completes a WMI request of another device",
     [](UsbBench& bench) {
         bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, CompleteWith(STATUS_SUCCESS));
         SendOwn(bench, IRP_MJ_SYSTEM_CONTROL, IRP_MN_QUERY_ALL_DATA, STATUS_NOT_SUPPORTED, 1);
     }},
    {Rule::WmiUnknownTouched, "changes a WMI request that it cannot know",
     TreatsTheUnknown(IRP_MJ_SYSTEM_CONTROL, ChangeAndPassDown)},
    {Rule::WmiInitialStatus, "sends a WMI request that is answered already",
     [](UsbBench& bench) {
         SendOwn(bench, IRP_MJ_SYSTEM_CONTROL, IRP_MN_QUERY_ALL_DATA, STATUS_SUCCESS, 0);
     }},
    {Rule::WmiNotCompleted, "lets its WMI request pass", Registers(nullptr)},
    {Rule::WmiBadAnswer, "gives a WMI answer that is none", Registers([](PDEVICE_OBJECT, PIRP irp) {
         auto* answer = static_cast<PULONG>(IoGetCurrentIrpStackLocation(irp)->Parameters.WMI.Buffer);
         answer[4] = 1000; // GUIDs, in a buffer of 20 bytes
         return Complete(irp, STATUS_SUCCESS, 20);
     })},
};

const BrokenStack kUsers[] = {
    {Rule::UrbReused, "submits a URB that is in flight",
     [](UsbBench& bench) {
         const auto flight = bench.StartIn(8);
         const auto second = bench.Submit(std::unique_ptr<URB>(flight->urb.get()));
         bench.Land(second);
         (void)second->urb.release();
         IoCancelIrp(flight->irp);
         bench.Land(flight);
     }},
    {Rule::UrbMalformed, "gives a URB a wrong length",
     [](UsbBench& bench) {
         std::vector<UCHAR> buffer(8);
         auto urb = UsbBench::TransferUrb(bench.bulk_in, buffer, 0);
         urb->UrbHeader.Length = sizeof(URB);
         bench.Land(bench.Submit(std::move(urb), std::move(buffer)));
     }},
    {Rule::UrbPipeStale, "uses a handle that never was one",
     [](UsbBench& bench) { bench.PipeRequest(URB_FUNCTION_ABORT_PIPE, &bench); }},
    {Rule::UrbNotInD0, "submits while the device is suspended",
     [](UsbBench& bench) {
         PoSetPowerState(bench.script.device, DevicePowerState, DeviceState(PowerDeviceD2));
         bench.RequestPower(PowerDeviceD2);
         bench.Land(bench.StartIn(8));
         bench.RequestPower(PowerDeviceD0);
     }},
    {Rule::UrbAfterRemove, "submits after its removal",
     [](UsbBench& bench) {
         EXPECT_EQ(PnpManager::Current().Disable(bench.Node()), STATUS_SUCCESS);
         bench.Land(bench.StartIn(8));
     }},
    {Rule::UrbBadIrql, "resets a pipe from a spin lock's IRQL",
     [](UsbBench& bench) {
         auto urb = UsbBench::PipeUrb(URB_FUNCTION_ABORT_PIPE, bench.bulk_in);
         const KIRQL irql = KfRaiseIrql(DISPATCH_LEVEL);
         const auto flight = bench.Submit(std::move(urb));
         KeLowerIrql(irql);
         bench.Land(flight);
     }},
};

// An idle request is sent, and cancelled when the callback is through.
Story IdlesWith(USB_IDLE_CALLBACK callback, PIO_COMPLETION_ROUTINE completion)
{
    return [=](UsbBench& bench) {
        USB_IDLE_CALLBACK_INFO info{callback, &bench};
        PIRP irp = IoAllocateIrp(bench.Lower()->StackSize, FALSE);
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION;
        next->Parameters.DeviceIoControl.InputBufferLength = sizeof info;
        next->Parameters.DeviceIoControl.Type3InputBuffer = &info;
        IoSetCompletionRoutine(irp, completion, &bench, TRUE, TRUE, TRUE);
        IoCallDriver(bench.Lower(), irp);
        bench.kernel.RunUntilIdle();
        IoCancelIrp(irp);
        bench.kernel.RunUntilIdle();
        IoFreeIrp(irp);
    };
}

VOID NTAPI GoDown(PVOID context)
{
    auto* bench = static_cast<UsbBench*>(context);
    PoSetPowerState(bench->script.device, DevicePowerState, DeviceState(PowerDeviceD2));
    bench->RequestPower(PowerDeviceD2);
}

NTSTATUS NTAPI Stay(PDEVICE_OBJECT, PIRP, PVOID)
{
    return STATUS_MORE_PROCESSING_REQUIRED;
}

const BrokenStack kIdlers[] = {
    {Rule::IdleBlocksOnPowerUp, "waits for D0 in its idle callback",
     IdlesWith(
         [](PVOID context) NTAPI {
             GoDown(context);
             static_cast<UsbBench*>(context)->RequestPower(PowerDeviceD0);
             GoDown(context);
         },
         Stay)},
    {Rule::IdleBlocksOnPowerUp, "waits for D0 when its idle request ends",
     IdlesWith(GoDown,
               [](PDEVICE_OBJECT, PIRP, PVOID context) NTAPI -> NTSTATUS {
                   static_cast<UsbBench*>(context)->RequestPower(PowerDeviceD0);
                   return STATUS_MORE_PROCESSING_REQUIRED;
               })},
};

void Judge(const BrokenStack& stack, bool configured)
{
    SCOPED_TRACE(std::string(NameOf(stack.rule)) + ": a driver that " + stack.name);
    UsbBench bench;
    if (configured)
        bench.Configure();
    EXPECT_EQ(bench.Broken(), std::vector<Rule>{});
    stack.run(bench);
    EXPECT_EQ(bench.Broken(), std::vector{stack.rule});
    bench.script.on = {};
}

TEST(VerifierOfDevices, CatchesEachRuleAndNothingElse)
{
    for (const BrokenStack& stack : kStacks)
        Judge(stack, false);
    for (const BrokenStack& idler : kIdlers)
        Judge(idler, false);
    for (const BrokenStack& user : kUsers)
        Judge(user, true);
}

} // namespace
