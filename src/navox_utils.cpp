#include "navox_utils.h"

// Pending-I/O count ---------------------------------------------------------------------------------------

namespace {

ULONG AddOne(DEVICE_EXTENSION* extension) _Requires_lock_held_(extension->StateLock)
{
    if (++extension->OutstandingIO == 2)
        KeClearEvent(&extension->StopEvent);
    return extension->OutstandingIO;
}

void TraceCount(const char* caller, ULONG line, ULONG count)
{
    TRACE(TRACE_COUNT, LEVEL_VERBOSE, "%s:%u: pending-I/O count %u", caller, line, count);
}

} // namespace

void InitialiseIoCount(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    extension->OutstandingIO = 1;
}

bool IsNothingPending(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    // A count that is short tells nothing.
    return extension->OutstandingIO == 1 && extension->IdleDebt == 0;
}

void IncrementIoCount(DEVICE_EXTENSION* extension, const char* caller, ULONG line)
{
    ULONG count;
    {
        SpinLockGuard guard(&extension->StateLock);
        count = AddOne(extension);
    }
    TraceCount(caller, line, count);
}

bool IncrementIoCountUnlessRemoved(DEVICE_EXTENSION* extension, const char* caller, ULONG line)
{
    ULONG count;
    {
        SpinLockGuard guard(&extension->StateLock);
        if (extension->DevicePnPState == STATE_REMOVED)
            return false;
        count = AddOne(extension);
    }
    TraceCount(caller, line, count);
    return true;
}

bool IncrementIoCountIfStarted(DEVICE_EXTENSION* extension, const char* caller, ULONG line)
{
    ULONG count;
    {
        SpinLockGuard guard(&extension->StateLock);
        if (extension->DevicePnPState != STATE_STARTED)
            return false;
        count = AddOne(extension);
    }
    TraceCount(caller, line, count);
    return true;
}

void DecrementIoCount(DEVICE_EXTENSION* extension, const char* caller, ULONG line)
{
    ULONG count;
    {
        SpinLockGuard guard(&extension->StateLock);
        count = --extension->OutstandingIO;
        if (count == 1)
            KeSetEvent(&extension->StopEvent, 1, FALSE);
        if (count + extension->IdleDebt == 0)
            KeSetEvent(&extension->RemoveEvent, 1, FALSE);
    }
    TraceCount(caller, line, count); // the extension may be gone by now
}

void DecrementIoCountUnpaired(DEVICE_EXTENSION* extension)
{
    {
        SpinLockGuard guard(&extension->StateLock);
        ++extension->IdleDebt;
    }
    DecrementIoCount(extension);
}

void SetPnpState(DEVICE_EXTENSION* extension, ULONG state)
{
    SpinLockGuard guard(&extension->StateLock);
    extension->DevicePnPState = state;
}

ULONG GetPnpState(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    return extension->DevicePnPState;
}

void SetPowerQueriedIfStarted(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    if (extension->DevicePnPState == STATE_STARTED)
        extension->DevicePnPState = STATE_POWER_QUERIED;
}

void SetStartedUnlessLeaving(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    const ULONG state = extension->DevicePnPState;
    if (state != STATE_REMOVE_PENDING && state != STATE_REMOVED && state != STATE_STOP_PENDING &&
        state != STATE_SURPRISE_REMOVED)
        extension->DevicePnPState = STATE_STARTED;
}

NTSTATUS AdmitRequest(PIRP irp, DEVICE_EXTENSION* extension, const char* caller, ULONG line)
{
    IncrementIoCount(extension, caller, line);

    const ULONG state = GetPnpState(extension);
    if (state == STATE_STARTED)
        return STATUS_SUCCESS;
    // Bits 16 and 28 mark every state on the way out. STATE_NEVER_STARTED and STATE_REMOVED have neither and
    // admit.
    constexpr ULONG leaving = 0x10010000;
    if ((state & leaving) != 0 && IoGetCurrentIrpStackLocation(irp)->MajorFunction != IRP_MJ_PNP) {
        irp->IoStatus.Status = STATUS_DELETE_PENDING;
        return STATUS_DELETE_PENDING;
    }
    return STATUS_SUCCESS;
}

bool HasClients(DEVICE_EXTENSION* extension)
{
    SpinLockGuard lock(&extension->ClientListLock);
    return !IsListEmpty(&extension->ClientList);
}

void ReportDevicePower(DEVICE_EXTENSION* extension, DEVICE_POWER_STATE state)
{
    POWER_STATE power;
    power.DeviceState = state;
    PoSetPowerState(extension->Self, DevicePowerState, power);
}

// Requests ------------------------------------------------------------------------------------------------

NTSTATUS CompleteRequest(PIRP irp, NTSTATUS status, ULONG_PTR information, CCHAR boost)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, boost);
    return status;
}

void CompleteCounted(DEVICE_EXTENSION* extension, PIRP irp)
{
    IoCompleteRequest(irp, IO_SERIAL_INCREMENT);
    DecrementIoCount(extension);
}

NTSTATUS CompleteAndUncount(DEVICE_EXTENSION* extension, PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    CompleteRequest(irp, status, information);
    DecrementIoCount(extension);
    return status;
}

NTSTATUS SkipAndForward(DEVICE_EXTENSION* extension, PIRP irp)
{
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(extension->LowerDeviceObject, irp);
}

static NTSTATUS NTAPI SignalForwarded(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS ForwardAndWait(DEVICE_EXTENSION* extension, PIRP irp)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, SignalForwarded, &done, TRUE, TRUE, TRUE);
    if (IoCallDriver(extension->LowerDeviceObject, irp) == STATUS_PENDING)
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return irp->IoStatus.Status;
}

PIRP TakeIrp(PIRP* field)
{
    return static_cast<PIRP>(InterlockedExchangePointer(reinterpret_cast<PVOID*>(field), nullptr));
}
