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

void QueueReader(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    if (extension->DevicePnPState != STATE_REMOVED)
        KeInsertQueueDpc(&extension->ReaderDpc, nullptr, nullptr);
}

PIRP TakeIrp(PIRP* field)
{
    return static_cast<PIRP>(InterlockedExchangePointer(reinterpret_cast<PVOID*>(field), nullptr));
}

void CancelReader(DEVICE_EXTENSION* extension)
{
    // Whoever takes the request out of the field may touch it; the reader does not free it before it has
    // heard from us.
    const PIRP irp = TakeIrp(&extension->ReaderIrp);
    if (irp == nullptr)
        return;
    extension->ReaderCancelled = TRUE;
    IoCancelIrp(irp);
    KeSetEvent(&extension->ReaderCancelEvent, IO_NO_INCREMENT, FALSE);
}

// Current and queued requests -----------------------------------------------------------------------------

bool IsCancelled(const CLIENT* client, PIRP irp)
{
    return irp->Cancel || client->Device->RequestsCancelled;
}

NTSTATUS StartOrQueue(CLIENT* client, PIRP irp, const REQUEST_SLOT& slot)
{
    CancelLockGuard cancelLock;
    if (IsListEmpty(&(client->*slot.Queue)) && client->*slot.Current == nullptr) {
        client->*slot.Current = irp;
        cancelLock.Release();
        return slot.Start(client);
    }
    if (IsCancelled(client, irp)) {
        cancelLock.Release();
        irp->IoStatus.Status = STATUS_CANCELLED;
        irp->IoStatus.Information = 0;
        CompleteCounted(client->Device, irp);
        return STATUS_CANCELLED;
    }
    IoMarkIrpPending(irp);
    irp->IoStatus.Status = STATUS_PENDING;
    InsertTailList(&(client->*slot.Queue), &irp->Tail.Overlay.ListEntry);
    IoSetCancelRoutine(irp, CancelQueued);
    return STATUS_PENDING;
}

PIRP PromoteNext(CLIENT* client, const REQUEST_SLOT& slot)
{
    LIST_ENTRY* queue = &(client->*slot.Queue);
    PIRP next = nullptr;
    if (!IsListEmpty(queue)) {
        next = CONTAINING_RECORD(RemoveHeadList(queue), IRP, Tail.Overlay.ListEntry);
        IoSetCancelRoutine(next, nullptr);
    }
    client->*slot.Current = next;
    return next;
}

PIRP NextRequest(CLIENT* client, PIRP finished, const REQUEST_SLOT& slot)
{
    DEVICE_EXTENSION* extension = client->Device;
    PIRP next;
    {
        CancelLockGuard cancelLock;
        next = PromoteNext(client, slot);
    }
    // From here on the client lives only as long as `next` does.
    CompleteCounted(extension, finished);
    return next;
}

void CompleteCounted(DEVICE_EXTENSION* extension, PIRP irp)
{
    IoCompleteRequest(irp, IO_SERIAL_INCREMENT);
    DecrementIoCount(extension);
}

PIRP ReleaseReference(CLIENT* client, LeaveRoutine* leave, NTSTATUS status, const REQUEST_SLOT& slot,
                      ULONG_PTR reference)
{
    const PIRP irp = client->*slot.Current;
    DropReference(irp, reference);

    if (leave != nullptr) {
        SpinLockGuard clientLock(&client->Lock);
        leave(client, irp);
    }
    if (IoSetCancelRoutine(irp, nullptr) != nullptr)
        DropReference(irp, kReferenceCancel);
    if (slot.HasTimers) {
        if (CancelTimer(client, &client->IntervalTimer))
            DropReference(irp, kReferenceIntervalTimer);
        if (CancelTimer(client, &client->TotalTimer))
            DropReference(irp, kReferenceTotalTimer);
    }
    if (References(irp) != 0)
        return nullptr;

    irp->IoStatus.Status = status;
    if (status == STATUS_CANCELLED)
        irp->IoStatus.Information = 0;
    if (slot.Start != nullptr)
        PromoteNext(client, slot);
    else
        client->*slot.Current = nullptr;
    return irp;
}

NAVOX_HANDS_LOCK_OVER void CompleteCurrent(CLIENT* client, LeaveRoutine* leave, KIRQL cancelIrql,
                                           NTSTATUS status, const REQUEST_SLOT& slot, ULONG_PTR reference)
{
    DEVICE_EXTENSION* extension = client->Device;
    const PIRP finished = ReleaseReference(client, leave, status, slot, reference);
    const bool startNext = finished != nullptr && slot.Start != nullptr && client->*slot.Current != nullptr;
    IoReleaseCancelSpinLock(cancelIrql);
    if (finished == nullptr)
        return;
    CompleteCounted(extension, finished);
    // The next request, if there is one, keeps the client alive.
    if (startNext)
        (void)slot.Start(client);
}

NAVOX_HANDS_LOCK_OVER void NTAPI CancelQueued(PDEVICE_OBJECT device, PIRP irp)
{
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    IoReleaseCancelSpinLock(irp->CancelIrql);
    irp->IoStatus.Status = STATUS_CANCELLED;
    irp->IoStatus.Information = 0;
    CompleteCounted(GetExtension(device), irp);
}

// Takes the requests that are still queued, oldest first. Cancel spin lock held.
static void TakeQueued(LIST_ENTRY* queue, LIST_ENTRY* cancelled)
{
    while (!IsListEmpty(queue)) {
        const PIRP irp = CONTAINING_RECORD(RemoveHeadList(queue), IRP, Tail.Overlay.ListEntry);
        IoSetCancelRoutine(irp, nullptr);
        irp->Cancel = TRUE;
        irp->IoStatus.Status = STATUS_CANCELLED;
        irp->IoStatus.Information = 0;
        InsertTailList(cancelled, &irp->Tail.Overlay.ListEntry);
    }
}

// Takes the current request if it waits; one that does not is marked and sees to it itself. Cancel spin lock held.
static void TakeCurrent(CLIENT* client, const REQUEST_SLOT& slot, LIST_ENTRY* cancelled)
{
    PIRP irp = client->*slot.Current;
    if (irp == nullptr)
        return;
    irp->Cancel = TRUE;
    if (IoSetCancelRoutine(irp, nullptr) == nullptr)
        return;
    irp = ReleaseReference(client, slot.Leave, STATUS_CANCELLED, slot, kReferenceCancel);
    if (irp != nullptr)
        InsertTailList(cancelled, &irp->Tail.Overlay.ListEntry);
}

void TakeClientRequests(CLIENT* client, LIST_ENTRY* cancelled)
{
    CancelLockGuard cancelLock;
    TakeQueued(&client->ReadQueue, cancelled);
    TakeCurrent(client, ReadSlot, cancelled);
    TakeQueued(&client->MaskQueue, cancelled);
    TakeCurrent(client, MaskSlot, cancelled);
    TakeCurrent(client, WaitSlot, cancelled);
    TakeQueued(&client->DeferredQueue, cancelled);
}

void CompleteAllCounted(DEVICE_EXTENSION* extension, LIST_ENTRY* requests)
{
    while (!IsListEmpty(requests))
        CompleteCounted(extension, CONTAINING_RECORD(RemoveHeadList(requests), IRP, Tail.Overlay.ListEntry));
}

// Time-out timers -----------------------------------------------------------------------------------------

void RaiseTimerCounts(CLIENT* client)
{
    InterlockedIncrement(&client->Device->OutstandingTimers);
    InterlockedIncrement(&client->OutstandingTimers);
}

void LowerTimerCounts(CLIENT* client)
{
    DEVICE_EXTENSION* extension = client->Device;
    if (InterlockedDecrement(&client->OutstandingTimers) == 0) {
        if (KeGetCurrentIrql() <= DISPATCH_LEVEL)
            KeSetEvent(&client->TimersDrainedEvent, IO_NO_INCREMENT, FALSE);
        else
            KeInsertQueueDpc(&client->EventDpc, nullptr, nullptr);
    }
    if (InterlockedDecrement(&extension->OutstandingTimers) == 0)
        KeSetEvent(&extension->TimersDrainedEvent, IO_NO_INCREMENT, FALSE);
}

void StartTimer(CLIENT* client, KTIMER* timer, LONGLONG dueTime, KDPC* dpc)
{
    LARGE_INTEGER due;
    due.QuadPart = dueTime;
    RaiseTimerCounts(client);
    if (KeSetTimer(timer, due, dpc))
        LowerTimerCounts(client);
}

bool CancelTimer(CLIENT* client, KTIMER* timer)
{
    if (!KeCancelTimer(timer))
        return false;
    LowerTimerCounts(client);
    return true;
}
