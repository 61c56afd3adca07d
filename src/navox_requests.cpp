#include "navox_requests.h"

#include "navox_utils.h"

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
