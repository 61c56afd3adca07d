#include "navox_read.h"

#include "navox_requests.h"
#include "navox_utils.h"

namespace {

PUCHAR SystemBuffer(PIRP irp)
{
    return static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer);
}

ULONG& RequestedLength(PIRP irp)
{
    return IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length;
}

// Takes what the ring holds into the current read, behind what that read holds already. TimeoutsLock or
// client lock held; the count of unread bytes is lowered by the caller, under the client lock.
ULONG TakeIntoRead(CLIENT* client, PIRP irp)
{
    const ULONG offset = RequestedLength(irp) - client->BytesStillNeeded;
    const ULONG taken = client->Ring.Take(SystemBuffer(irp) + offset, client->BytesStillNeeded);
    client->BytesStillNeeded -= taken;
    irp->IoStatus.Information += taken;
    return taken;
}

// Takes the read away from the fan-out. Cancel spin lock and client lock held.
void LeaveDirectFill(CLIENT* client, PIRP irp)
{
    ClientRing& ring = client->Ring;
    if (!ring.IsDirectFill())
        return; // filled: ReadCompletionDpc holds the reader's reference
    irp->IoStatus.Information = RequestedLength(irp) - ring.RoomInFill();
    ring.ResetToRing();
    DropReference(irp, kReferenceReader);
}

// A racing interval check learns of the cancel.
void LeaveCancelled(CLIENT* client, PIRP irp)
{
    client->CountOnLastRead = kReadCancelled;
    LeaveDirectFill(client, irp);
}

NAVOX_HANDS_LOCK_OVER void NTAPI CancelCurrentRead(PDEVICE_OBJECT, PIRP irp)
{
    auto* client = ClientOf(irp);
    CompleteCurrent(client, LeaveCancelled, irp->CancelIrql, STATUS_CANCELLED, ReadSlot, kReferenceCancel);
}

void ArmTimers(CLIENT* client, PIRP irp, const ReadPlan& plan)
{
    if (plan.UseTotalTimer) {
        AddReference(irp, kReferenceTotalTimer);
        StartTimer(client, &client->TotalTimer, plan.TotalTime, &client->TotalTimerDpc);
    }
    if (plan.UseIntervalTimer) {
        AddReference(irp, kReferenceIntervalTimer);
        KeQuerySystemTime(&client->LastReadTime);
        StartTimer(client, &client->IntervalTimer, *client->IntervalTimeToUse, &client->IntervalTimerDpc);
    }
}

// The read has to wait for more than the ring held; `taken` bytes have left the ring and are not yet
// accounted for. STATUS_PENDING: it waits, and is out of the caller's hands. Otherwise its status is set and
// it is the caller's to complete. Only the current read takes, so the second take needs no more than the
// client lock.
NTSTATUS BeginWaiting(CLIENT* client, PIRP irp, const ReadPlan& plan, ULONG taken)
{
    CancelLockGuard cancelLock;
    SetReferences(irp, 0);
    SpinLockGuard clientLock(&client->Lock);
    client->Ring.Account(taken);
    if (IsCancelled(client, irp)) {
        irp->IoStatus.Information = 0;
        return irp->IoStatus.Status = STATUS_CANCELLED;
    }
    if (plan.CrunchDownToOne)
        client->BytesStillNeeded = RequestedLength(irp) = 1;
    client->Ring.Account(TakeIntoRead(client, irp)); // what arrived meanwhile
    if (client->BytesStillNeeded == 0)
        return irp->IoStatus.Status = STATUS_SUCCESS;

    const auto filled = static_cast<ULONG>(irp->IoStatus.Information);
    client->CountOnLastRead = filled;
    client->Ring.EnterDirectFill(SystemBuffer(irp), RequestedLength(irp), filled);
    IoSetCancelRoutine(irp, CancelCurrentRead);
    SetReferences(irp, kReferenceReader | kReferenceCancel);
    IoMarkIrpPending(irp);
    ArmTimers(client, irp, plan);
    return STATUS_PENDING;
}

// Serves the current read as far as the ring goes. STATUS_PENDING: it waits for more. Otherwise its status is
// set.
NTSTATUS ServeRead(CLIENT* client, PIRP irp)
{
    const ULONG length = RequestedLength(irp);
    client->BytesStillNeeded = length;
    RtlZeroMemory(SystemBuffer(irp), length);
    CancelTimer(client, &client->TotalTimer);
    CancelTimer(client, &client->IntervalTimer);

    ReadPlan plan;
    ULONG taken;
    {
        SpinLockGuard timeoutsLock(&client->TimeoutsLock);
        plan = PlanRead(client->ReadTimeouts, length);
        taken = TakeIntoRead(client, irp);
    }
    if (plan.UseIntervalTimer) {
        client->IntervalTime = plan.IntervalTime;
        client->IntervalTimeToUse = plan.IntervalTime < client->CutOverAmount ? &client->ShortIntervalAmount
                                                                              : &client->LongIntervalAmount;
    }
    const bool served = plan.ReturnImmediately || client->BytesStillNeeded == 0 ||
                        (plan.ReturnWithWhatIsPresent && taken != 0);
    if (!served)
        return BeginWaiting(client, irp, plan, taken);
    SpinLockGuard clientLock(&client->Lock);
    client->Ring.Account(taken);
    return irp->IoStatus.Status = STATUS_SUCCESS;
}

// Serves the current read and those behind it, until one has to wait. Returns the first one's status.
NTSTATUS StartRead(CLIENT* client)
{
    NTSTATUS firstStatus = STATUS_SUCCESS;
    bool first = true;
    for (PIRP irp = client->CurrentReadIrp; irp != nullptr;) {
        const NTSTATUS status = ServeRead(client, irp);
        if (first)
            firstStatus = status;
        first = false;
        if (status == STATUS_PENDING)
            break;
        irp = NextRequest(client, irp, ReadSlot);
    }
    return firstStatus;
}

} // namespace

const REQUEST_SLOT ReadSlot = {&CLIENT::CurrentReadIrp, &CLIENT::ReadQueue, true, LeaveCancelled, StartRead};

bool IsErrorAborted(const DEVICE_EXTENSION* extension, PIRP irp)
{
    if ((extension->DeviceHandFlow.ControlHandShake & SERIAL_ERROR_ABORT) == 0)
        return false;
    const IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
    return stack->MajorFunction != IRP_MJ_DEVICE_CONTROL ||
           stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_SERIAL_GET_COMMSTATUS;
}

NTSTATUS NTAPI ReadDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    auto* client = ClientOf(irp);
    TRACE(TRACE_READ, LEVEL_VERBOSE, "process %p reads %u bytes", PsGetCurrentProcessId(),
          RequestedLength(irp));

    const NTSTATUS status = AdmitRequest(irp, extension);
    if (status != STATUS_SUCCESS)
        return CompleteAndUncount(extension, irp, status);
    if (IsErrorAborted(extension, irp))
        return CompleteAndUncount(extension, irp, STATUS_CANCELLED);
    if (RequestedLength(irp) == 0)
        return CompleteAndUncount(extension, irp, STATUS_SUCCESS);
    irp->IoStatus.Information = 0;
    return StartOrQueue(client, irp, ReadSlot);
}

// Why a wait ends, as the DPCs see it. Each is entered with the client as its context and lowers the counts
// of outstanding callbacks when it is through.

NAVOX_HANDS_LOCK_OVER static void EndWait(CLIENT* client, ULONG marker, LeaveRoutine* leave, NTSTATUS status,
                                          ULONG_PTR reference)
{
    CancelLockGuard cancelLock;
    client->CountOnLastRead = marker;
    CompleteCurrent(client, leave, cancelLock.HandOver(), status, ReadSlot, reference);
}

void NTAPI ReadCompletionDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    auto* client = static_cast<CLIENT*>(context);
    EndWait(client, kReadFilled, nullptr, STATUS_SUCCESS, kReferenceReader);
    LowerTimerCounts(client);
}

void NTAPI TotalTimerDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    auto* client = static_cast<CLIENT*>(context);
    EndWait(client, kReadTimedOut, LeaveDirectFill, STATUS_TIMEOUT, kReferenceTotalTimer);
    LowerTimerCounts(client);
}

// Whether the pause since the last byte has become too long. Notes bytes that came since the last look.
// Cancel spin lock held.
static bool IsPauseOver(CLIENT* client)
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    SpinLockGuard clientLock(&client->Lock);
    if (client->Ring.DirectFillCount != 0) {
        client->CountOnLastRead = client->Ring.DirectFillCount;
        client->Ring.DirectFillCount = 0;
        client->LastReadTime = now;
        return false;
    }
    // The clock starts with the first byte.
    return client->CountOnLastRead != 0 &&
           now.QuadPart - client->LastReadTime.QuadPart >= client->IntervalTime;
}

NAVOX_HANDS_LOCK_OVER static void CheckInterval(CLIENT* client)
{
    CancelLockGuard cancelLock;
    const auto complete = [&](LeaveRoutine* leave, NTSTATUS status) {
        CompleteCurrent(client, leave, cancelLock.HandOver(), status, ReadSlot, kReferenceIntervalTimer);
    };
    switch (client->CountOnLastRead) {
    case kReadTimedOut: return complete(LeaveDirectFill, STATUS_TIMEOUT);
    case kReadFilled: return complete(nullptr, STATUS_SUCCESS);
    case kReadCancelled: return complete(nullptr, STATUS_CANCELLED);
    default: break;
    }
    if (IsPauseOver(client))
        complete(LeaveDirectFill, STATUS_TIMEOUT);
    else
        StartTimer(client, &client->IntervalTimer, *client->IntervalTimeToUse, &client->IntervalTimerDpc);
}

void NTAPI IntervalTimerDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    auto* client = static_cast<CLIENT*>(context);
    CheckInterval(client);
    LowerTimerCounts(client);
}
