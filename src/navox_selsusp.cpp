#include "navox_selsusp.h"

#include "navox_requests.h"
#include "navox_utils.h"

namespace {

constexpr LONGLONG kFirstLook = -50'000'000; // 5 s
constexpr LONG kLookPeriod = 5'000;          // ms

// What the power-down completion gets: who waits for it.
struct IDLE_CONTEXT {
    DEVICE_EXTENSION* Extension;
    PKEVENT Done;
};
static_assert(sizeof(IDLE_CONTEXT) == 16 && sizeof(USB_IDLE_CALLBACK_INFO) == 16);

void ArmIdleTimer(DEVICE_EXTENSION* extension)
{
    LARGE_INTEGER due;
    due.QuadPart = kFirstLook;
    KeSetTimerEx(&extension->IdleTimer, due, kLookPeriod, &extension->IdleDpc);
}

bool IsIdle(DEVICE_EXTENSION* extension)
{
    return IsNothingPending(extension) && !HasClients(extension) && !extension->NoIdleRequests;
}

void FreeIdleIrp(DEVICE_EXTENSION* extension, PIRP irp)
{
    IoFreeIrp(irp);
    KeSetEvent(&extension->IdleRequestDoneEvent, IO_NO_INCREMENT, FALSE);
    // Only now may the next one be prepared: the references are this one's as long as somebody has it.
    InterlockedExchange(&extension->IdleInProgress, 0);
}

// Drops one of the two references; the last one frees the request.
void DereferenceIdleIrp(DEVICE_EXTENSION* extension, PIRP irp)
{
    if (InterlockedDecrement(&extension->IdleIrpRefs) == 0)
        FreeIdleIrp(extension, irp);
}

// Suspend and resume --------------------------------------------------------------------------------------

void NTAPI PoweredDown(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK)
{
    PoolPointer<IDLE_CONTEXT, kTagIdleContext> idle;
    idle.Adopt(static_cast<IDLE_CONTEXT*>(context));
    KeSetEvent(idle->Done, IO_NO_INCREMENT, FALSE);
    DecrementIoCount(idle->Extension);
}

// The hub is ready to suspend. Does not return before the device has left D0.
void NTAPI IdleCallback(PVOID context)
{
    auto* extension = static_cast<DEVICE_EXTENSION*>(context);
    if (extension->DevicePnPState != STATE_STARTED)
        return;
    PoolPointer<IDLE_CONTEXT, kTagIdleContext> idle;
    if (!idle.Allocate(NonPagedPool))
        return;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    idle->Extension = extension;
    idle->Done = &done;
    if (!IncrementIoCountIfStarted(extension))
        return;

    POWER_STATE power;
    power.DeviceState = extension->IdlePowerState;
    const NTSTATUS status = PoRequestPowerIrp(extension->PhysicalDeviceObject, IRP_MN_SET_POWER, power,
                                              PoweredDown, idle.get(), nullptr);
    if (status == STATUS_PENDING) {
        (void)idle.Detach(); // the completion's
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    } else {
        TRACE(TRACE_IDLE, LEVEL_WARNING, "device not powered down: 0x%x", status);
        DecrementIoCount(extension);
    }
}

void NoteAwake(DEVICE_EXTENSION* extension)
{
    KeSetEvent(&extension->IdleAwakeEvent, IO_NO_INCREMENT, FALSE);
    DecrementIoCount(extension);
}

void NTAPI PoweredUp(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK)
{
    NoteAwake(static_cast<DEVICE_EXTENSION*>(context));
}

void RequestD0(DEVICE_EXTENSION* extension)
{
    POWER_STATE power;
    power.DeviceState = PowerDeviceD0;
    IncrementIoCount(extension);
    KeClearEvent(&extension->IdleAwakeEvent);
    const NTSTATUS status = PoRequestPowerIrp(extension->PhysicalDeviceObject, IRP_MN_SET_POWER, power,
                                              PoweredUp, extension, nullptr);
    if (status != STATUS_PENDING) {
        TRACE(TRACE_IDLE, LEVEL_WARNING, "device not powered up: 0x%x", status);
        NoteAwake(extension);
    }
}

bool NeedsD0(const DEVICE_EXTENSION* extension, NTSTATUS status)
{
    switch (status) {
    case STATUS_NOT_SUPPORTED:
    case STATUS_POWER_STATE_INVALID: return false;
    case STATUS_CANCELLED: return true;
    default: return extension->DevicePowerState != PowerDeviceD0;
    }
}

// Takes what belongs to the request out of the extension. The request is null if a canceller has it.
PIRP TakeIdleRequest(DEVICE_EXTENSION* extension, PUSB_IDLE_CALLBACK_INFO* info)
{
    SpinLockGuard lock(&extension->IdleLock);
    *info = extension->IdleCallbackInfo;
    extension->IdleCallbackInfo = nullptr;
    return TakeIrp(&extension->IdleIrp);
}

void ReleaseIdleRequest(DEVICE_EXTENSION* extension, PIRP irp)
{
    PUSB_IDLE_CALLBACK_INFO info;
    const PIRP taken = TakeIdleRequest(extension, &info);
    FreePool(info, kTagIdleCallback);
    if (taken != nullptr)
        FreeIdleIrp(extension, irp);
    else
        DereferenceIdleIrp(extension, irp);
}

NTSTATUS NTAPI IdleCompleted(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* extension = static_cast<DEVICE_EXTENSION*>(context);
    const NTSTATUS status = irp->IoStatus.Status;
    TRACE(TRACE_IDLE, LEVEL_INFORMATION, "idle request: 0x%x", status);
    if (NeedsD0(extension, status))
        RequestD0(extension);
    ReleaseIdleRequest(extension, irp);
    {
        SpinLockGuard lock(&extension->IdleLock);
        if (extension->IdleMonitorActive)
            ArmIdleTimer(extension);
    }
    DecrementIoCount(extension);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The idle check ------------------------------------------------------------------------------------------

void NTAPI IdleWorkItem(PDEVICE_OBJECT device, PVOID context)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    if (IsIdle(extension)) {
        const NTSTATUS status = SubmitIdleRequest(extension);
        TRACE(TRACE_IDLE, LEVEL_INFORMATION, "idle request submitted: 0x%x", status);
    }
    IoFreeWorkItem(static_cast<PIO_WORKITEM>(context));
    KeSetEvent(&extension->IdleCheckDoneEvent, IO_NO_INCREMENT, FALSE);
}

void NTAPI IdleDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    const auto device = static_cast<PDEVICE_OBJECT>(context);
    DEVICE_EXTENSION* extension = GetExtension(device);
    if (KeResetEvent(&extension->IdleCheckDoneEvent) == 0)
        return; // the check before this one is still under way
    const PIO_WORKITEM item = IsIdle(extension) ? IoAllocateWorkItem(device) : nullptr;
    if (item != nullptr)
        IoQueueWorkItem(item, IdleWorkItem, DelayedWorkQueue, item);
    else
        KeSetEvent(&extension->IdleCheckDoneEvent, IO_NO_INCREMENT, FALSE);
}

// The idle request ----------------------------------------------------------------------------------------

// Builds the request and publishes it. On failure everything is as before.
NTSTATUS PrepareIdleRequest(DEVICE_EXTENSION* extension, PIRP* request)
{
    SpinLockGuard lock(&extension->IdleLock);
    if (InterlockedExchange(&extension->IdleInProgress, 1) == 1)
        return STATUS_DEVICE_BUSY;
    KeClearEvent(&extension->IdleRequestDoneEvent);

    PoolPointer<USB_IDLE_CALLBACK_INFO, kTagIdleCallback> info;
    const PIRP irp =
        info.Allocate(NonPagedPool) ? IoAllocateIrp(extension->LowerDeviceObject->StackSize, FALSE) : nullptr;
    if (irp == nullptr) {
        KeSetEvent(&extension->IdleRequestDoneEvent, IO_NO_INCREMENT, FALSE);
        InterlockedExchange(&extension->IdleInProgress, 0);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    info->IdleCallback = IdleCallback;
    info->IdleContext = extension;
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION;
    next->Parameters.DeviceIoControl.Type3InputBuffer = info.get();
    next->Parameters.DeviceIoControl.InputBufferLength = sizeof(USB_IDLE_CALLBACK_INFO);
    IoSetCompletionRoutine(irp, IdleCompleted, extension, TRUE, TRUE, TRUE);
    extension->IdleCallbackInfo = info.Detach();
    InterlockedExchange(&extension->IdleIrpRefs, 2);
    InterlockedExchangePointer(reinterpret_cast<PVOID*>(&extension->IdleIrp), irp);
    *request = irp;
    return STATUS_SUCCESS;
}

void TakeBackIdleRequest(DEVICE_EXTENSION* extension)
{
    PIRP irp;
    {
        SpinLockGuard lock(&extension->IdleLock);
        irp = TakeIrp(&extension->IdleIrp);
    }
    if (irp == nullptr)
        return;
    IoCancelIrp(irp);
    DereferenceIdleIrp(extension, irp);
}

} // namespace

void InitialiseIdleMonitor(DEVICE_EXTENSION* extension)
{
    KeInitializeDpc(&extension->IdleDpc, IdleDpc, extension->Self);
    KeInitializeTimer(&extension->IdleTimer);
    KeInitializeEvent(&extension->IdleCheckDoneEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&extension->IdleRequestDoneEvent, NotificationEvent, TRUE);
    KeInitializeEvent(&extension->IdleAwakeEvent, NotificationEvent, TRUE);
}

void StartIdleMonitor(DEVICE_EXTENSION* extension)
{
    if (extension->EnableSelectiveSuspend == 0)
        return;
    extension->IdleMonitorActive = TRUE;
    ArmIdleTimer(extension);
    InterlockedExchange(&extension->IdleIrpRefs, 0);
}

void StopIdleMonitor(DEVICE_EXTENSION* extension)
{
    if (extension->EnableSelectiveSuspend == 0 || !extension->IdleMonitorActive)
        return;
    {
        // One step under the lock: a completion that re-arms the timer comes either before it or not at all.
        SpinLockGuard lock(&extension->IdleLock);
        KeCancelTimer(&extension->IdleTimer);
        extension->IdleMonitorActive = FALSE;
    }
    KeFlushQueuedDpcs(); // a check that was due already
    KeWaitForSingleObject(&extension->IdleCheckDoneEvent, Executive, KernelMode, FALSE, nullptr);
    // That check may have sent a request after our caller looked; the hub would keep it.
    TakeBackIdleRequest(extension);
    KeWaitForSingleObject(&extension->IdleRequestDoneEvent, Executive, KernelMode, FALSE, nullptr);
}

void CancelIdleRequest(DEVICE_EXTENSION* extension)
{
    if (!IsNothingPending(extension) || HasClients(extension))
        TakeBackIdleRequest(extension);
}

void WaitUntilAwake(DEVICE_EXTENSION* extension)
{
    // The completion asks for D0 before it lets go of the request.
    KeWaitForSingleObject(&extension->IdleRequestDoneEvent, Executive, KernelMode, FALSE, nullptr);
    KeWaitForSingleObject(&extension->IdleAwakeEvent, Executive, KernelMode, FALSE, nullptr);
}

NTSTATUS SubmitIdleRequest(DEVICE_EXTENSION* extension)
{
    if (extension->DevicePowerState != PowerDeviceD0)
        return STATUS_POWER_STATE_INVALID;
    if (extension->DevicePnPState != STATE_STARTED)
        return STATUS_DEVICE_NOT_CONNECTED;
    PIRP irp;
    const NTSTATUS status = PrepareIdleRequest(extension, &irp);
    if (!NT_SUCCESS(status))
        return status;

    if (IsNothingPending(extension) && !HasClients(extension) &&
        extension->DevicePowerState == PowerDeviceD0) {
        KeCancelTimer(&extension->IdleTimer);
        IncrementIoCount(extension);
        return IoCallDriver(extension->LowerDeviceObject, irp);
    }
    ReleaseIdleRequest(extension, irp);
    DecrementIoCountUnpaired(extension); // why: kept, although nothing was counted on this path
    return STATUS_UNSUCCESSFUL;
}
