#include "navox_power.h"

#include "navox_devio.h"
#include "navox_selsusp.h"
#include "navox_usb.h"
#include "navox_utils.h"

namespace {

constexpr ULONG kFastResumeOn = 1;

// What the drain work item carries.
struct DRAIN_CONTEXT {
    PIO_WORKITEM WorkItem;
    PIRP Irp;
};
static_assert(sizeof(DRAIN_CONTEXT) == 16);

NTSTATUS PassDown(DEVICE_EXTENSION* extension, PIRP irp)
{
    PoStartNextPowerIrp(irp);
    IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = PoCallDriver(extension->LowerDeviceObject, irp);
    DecrementIoCount(extension);
    return status;
}

NTSTATUS SendDownPending(DEVICE_EXTENSION* extension, PIRP irp, PIO_COMPLETION_ROUTINE completion)
{
    IoMarkIrpPending(irp);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, completion, extension, TRUE, TRUE, TRUE);
    PoCallDriver(extension->LowerDeviceObject, irp);
    return STATUS_PENDING;
}

// The reader that was queued while the device was still on its way up found no power.
void ResumeDeferredReader(DEVICE_EXTENSION* extension)
{
    if (InterlockedExchange(&extension->ReaderDeferred, FALSE) != FALSE)
        QueueReader(extension);
}

// Wait-wake -----------------------------------------------------------------------------------------------

// The request is not counted: the bus may keep it until the removal. A reference to the device keeps the extension
// meanwhile.
// why: nobody puts a request into WaitWakeIrp, so that the first one that completes is left to a canceller which does
// not exist, and every later one ends as if it had been cancelled.
NTSTATUS NTAPI WaitWakeCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* extension = static_cast<DEVICE_EXTENSION*>(context);
    if (irp->PendingReturned)
        IoMarkIrpPending(irp);
    const bool taken = TakeIrp(&extension->WaitWakeIrp) != nullptr;
    const bool leave = !taken && InterlockedExchange(&extension->WaitWakeCancelled, 1) == 0;
    ObDereferenceObject(extension->Self);
    if (leave)
        return STATUS_MORE_PROCESSING_REQUIRED;
    PoStartNextPowerIrp(irp);
    return taken ? STATUS_SUCCESS : STATUS_CANCELLED;
}

NTSTATUS WaitWake(DEVICE_EXTENSION* extension, PIRP irp)
{
    ObReferenceObject(extension->Self);
    IoMarkIrpPending(irp);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, WaitWakeCompleted, extension, TRUE, TRUE, TRUE);
    PoStartNextPowerIrp(irp);
    PoCallDriver(extension->LowerDeviceObject, irp);
    DecrementIoCount(extension);
    return STATUS_PENDING;
}

// System power --------------------------------------------------------------------------------------------

// The device has followed the system, or could not.
void NTAPI DeviceFollowed(PDEVICE_OBJECT, UCHAR minor, POWER_STATE power, PVOID context,
                          PIO_STATUS_BLOCK ioStatus)
{
    auto* extension = static_cast<DEVICE_EXTENSION*>(context);
    if (extension->FastResumePending == 1 && minor == IRP_MN_SET_POWER) {
        extension->FastResumePending = 0; // the system request is long finished
        DecrementIoCount(extension);
        return;
    }
    const PIRP irp = TakeIrp(&extension->SystemPowerIrp);
    PoStartNextPowerIrp(irp);
    irp->IoStatus.Status = ioStatus->Status;
    if (power.DeviceState == PowerDeviceD0) {
        extension->CdcSetupPending = TRUE;
        ResumeDeferredReader(extension);
    }
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    DecrementIoCount(extension);
}

bool IsFastResume(const DEVICE_EXTENSION* extension, UCHAR minor, SYSTEM_POWER_STATE state)
{
    return extension->EnableFR == kFastResumeOn && minor == IRP_MN_SET_POWER && state == PowerSystemWorking &&
           extension->PreviousSystemPowerState != PowerSystemWorking;
}

// The reader rests while the system sleeps, and goes on from the set-up when it works again.
void SteerReader(DEVICE_EXTENSION* extension, SYSTEM_POWER_STATE state)
{
    if (state == PowerSystemSleeping2 || state == PowerSystemSleeping3 || state == PowerSystemHibernate) {
        KeRemoveQueueDpc(&extension->ReaderDpc);
    } else if (state == PowerSystemWorking) {
        extension->AtCommandPending = TRUE;
        if (HasClients(extension))
            QueueReader(extension);
    }
}

NTSTATUS NTAPI SystemPowerCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* extension = static_cast<DEVICE_EXTENSION*>(context);
    // The device may follow, and the request's own count go, before this routine is through.
    const PendingIo pending(extension);
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const UCHAR minor = stack->MinorFunction;
    const SYSTEM_POWER_STATE state = stack->Parameters.Power.State.SystemState;
    if (minor == IRP_MN_SET_POWER) {
        extension->PreviousSystemPowerState = extension->SystemPowerState;
        extension->SystemPowerState = state;
    }
    if (!NT_SUCCESS(irp->IoStatus.Status)) {
        PoStartNextPowerIrp(irp);
        DecrementIoCount(extension);
        return STATUS_SUCCESS;
    }

    POWER_STATE power;
    power.DeviceState =
        state < PowerSystemMaximum ? extension->DeviceStateMap[state] : PowerDeviceUnspecified;
    const bool fastResume = IsFastResume(extension, minor, state);
    if (fastResume) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        IncrementIoCount(extension);
        extension->FastResumePending = 1;
        PoStartNextPowerIrp(irp);
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        DecrementIoCount(extension);
    } else {
        extension->SystemPowerIrp = irp;
    }
    const NTSTATUS status =
        PoRequestPowerIrp(extension->PhysicalDeviceObject, minor, power, DeviceFollowed, extension, nullptr);
    if (status == STATUS_PENDING) {
        if (minor == IRP_MN_SET_POWER)
            SteerReader(extension, state);
        extension->SystemPowerState = state;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    if (fastResume) {
        extension->FastResumePending = 0;
        DecrementIoCount(extension);
        return STATUS_MORE_PROCESSING_REQUIRED; // completed above
    }
    (void)TakeIrp(&extension->SystemPowerIrp);
    PoStartNextPowerIrp(irp);
    irp->IoStatus.Status = status;
    DecrementIoCount(extension);
    return STATUS_SUCCESS;
}

NTSTATUS SystemPower(DEVICE_EXTENSION* extension, PIRP irp)
{
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_QUERY_POWER:
        CancelIdleRequest(extension);
        return SendDownPending(extension, irp, SystemPowerCompleted);
    case IRP_MN_SET_POWER: return SendDownPending(extension, irp, SystemPowerCompleted);
    case IRP_MN_WAIT_WAKE: return WaitWake(extension, irp);
    default: return PassDown(extension, irp);
    }
}

// Device power --------------------------------------------------------------------------------------------

void NoteDevicePower(DEVICE_EXTENSION* extension, DEVICE_POWER_STATE state)
{
    const DEVICE_POWER_STATE current = extension->DevicePowerState;
    const bool poweringDown = current < state;
    if (!poweringDown)
        ReportDevicePower(extension, state);
    extension->PreviousDevicePowerState = current;
    extension->DevicePowerState = state;
    if (poweringDown)
        return;
    SetStartedUnlessLeaving(extension);
    // Where the device follows the system, the line must be set up first: DeviceFollowed sees to the reader.
    if (InterlockedCompareExchangePointer(reinterpret_cast<PVOID*>(&extension->SystemPowerIrp), nullptr,
                                          nullptr) == nullptr)
        ResumeDeferredReader(extension);
}

NTSTATUS NTAPI DevicePowerCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* extension = static_cast<DEVICE_EXTENSION*>(context);
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->MinorFunction == IRP_MN_SET_POWER && NT_SUCCESS(irp->IoStatus.Status))
        NoteDevicePower(extension, stack->Parameters.Power.State.DeviceState);
    PoStartNextPowerIrp(irp);
    DecrementIoCount(extension);
    return STATUS_SUCCESS;
}

void NTAPI DrainWorkItem(PDEVICE_OBJECT device, PVOID context)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    PoolPointer<DRAIN_CONTEXT, kTagDrainContext> drain;
    drain.Adopt(static_cast<DRAIN_CONTEXT*>(context));
    IoFreeWorkItem(drain->WorkItem);
    (void)DrainPipe(extension, extension->InterruptPipe);
    (void)DrainPipe(extension, extension->BulkInPipe);
    PoCallDriver(extension->LowerDeviceObject, drain->Irp);
}

// Queues the drain that passes the request down behind it. False: memory is short.
bool QueueDrain(DEVICE_EXTENSION* extension, PIRP irp)
{
    PoolPointer<DRAIN_CONTEXT, kTagDrainContext> drain;
    if (!drain.Allocate(NonPagedPool))
        return false;
    drain->WorkItem = IoAllocateWorkItem(extension->Self);
    if (drain->WorkItem == nullptr)
        return false;
    drain->Irp = irp;
    const PIO_WORKITEM item = drain->WorkItem;
    IoQueueWorkItem(item, DrainWorkItem, DelayedWorkQueue, drain.Detach());
    return true;
}

NTSTATUS PowerDown(DEVICE_EXTENSION* extension, PIRP irp, DEVICE_POWER_STATE state)
{
    ReportDevicePower(extension, state);
    IoMarkIrpPending(irp);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, DevicePowerCompleted, extension, TRUE, TRUE, TRUE);
    if (!QueueDrain(extension, irp))
        PoCallDriver(extension->LowerDeviceObject, irp);
    return STATUS_PENDING;
}

NTSTATUS DevicePower(DEVICE_EXTENSION* extension, PIRP irp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const DEVICE_POWER_STATE state = stack->Parameters.Power.State.DeviceState;
    switch (stack->MinorFunction) {
    case IRP_MN_QUERY_POWER:
        SetPowerQueriedIfStarted(extension);
        return SendDownPending(extension, irp, DevicePowerCompleted);
    case IRP_MN_SET_POWER:
        if (state > extension->DevicePowerState)
            return PowerDown(extension, irp, state);
        return SendDownPending(extension, irp, DevicePowerCompleted);
    case IRP_MN_WAIT_WAKE: return WaitWake(extension, irp);
    default: return PassDown(extension, irp);
    }
}

bool TakesPowerRequests(DEVICE_EXTENSION* extension)
{
    const ULONG state = GetPnpState(extension);
    return state == STATE_STARTED || state == STATE_POWER_QUERIED;
}

} // namespace

NTSTATUS NTAPI PowerDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    IncrementIoCount(extension);
    TRACE(TRACE_POWER, LEVEL_INFORMATION, "%s", PowerMinorName(stack->MinorFunction));

    // why: every power request in any other state is failed, those of the system included.
    if (!TakesPowerRequests(extension)) {
        PoStartNextPowerIrp(irp);
        const NTSTATUS status = CompleteRequest(irp, STATUS_INVALID_DEVICE_STATE);
        DecrementIoCount(extension);
        return status;
    }
    switch (stack->Parameters.Power.Type) {
    case SystemPowerState: return SystemPower(extension, irp);
    case DevicePowerState: return DevicePower(extension, irp);
    default: return PassDown(extension, irp);
    }
}
