#include "navox_write.h"

#include "navox_requests.h"
#include "navox_utils.h"

namespace {

ULONG& SystemWord(PIRP irp)
{
    return *static_cast<ULONG*>(irp->AssociatedIrp.SystemBuffer);
}

// Reports `events` to the armed wait and disarms it. Cancel spin lock and client lock held.
void ReportToWait(CLIENT* client, ULONG events)
{
    *client->WaitResultLocation = events;
    client->WaitResultLocation = nullptr;
    if (client->CurrentWaitIrp != nullptr)
        client->CurrentWaitIrp->IoStatus.Information = sizeof(ULONG);
}

// Takes the wait away from the fan-out. Cancel spin lock and client lock held.
void LeaveWait(CLIENT* client, PIRP irp)
{
    if (client->WaitResultLocation == nullptr)
        return;
    ReportToWait(client, 0);
    DropReference(irp, kReferenceReader);
}

NAVOX_HANDS_LOCK_OVER void NTAPI CancelWait(PDEVICE_OBJECT, PIRP irp)
{
    auto* client = ClientOf(irp);
    CompleteCurrent(client, LeaveWait, irp->CancelIrql, STATUS_CANCELLED, WaitSlot, kReferenceCancel);
}

// Stores the mask. A wait that is armed ends with result 0; it is returned when this was its last reference.
PIRP SetMask(CLIENT* client, ULONG mask)
{
    CancelLockGuard cancelLock;
    bool ended;
    {
        SpinLockGuard clientLock(&client->Lock);
        ended = client->WaitResultLocation != nullptr;
        if (ended)
            ReportToWait(client, 0);
        client->HistoryMask &= mask;
        client->WaitMask = mask;
    }
    if (!ended || client->CurrentWaitIrp == nullptr)
        return nullptr;
    return ReleaseReference(client, nullptr, STATUS_SUCCESS, WaitSlot, kReferenceReader);
}

PIRP SetWaitMask(CLIENT* client, PIRP irp)
{
    if (const PIRP wait = SetMask(client, SystemWord(irp)))
        CompleteCounted(client->Device, wait);
    irp->IoStatus.Status = STATUS_SUCCESS;
    irp->IoStatus.Information = 0;
    return NextRequest(client, irp, MaskSlot);
}

// Arms the wait, or hands it back through `finished` when the history already has an event. Then the next
// mask request becomes current: nothing of the client is touched after the wait may have been completed.
// Cancel spin lock held.
PIRP ArmWait(CLIENT* client, PIRP irp, PIRP* finished)
{
    IoMarkIrpPending(irp);
    irp->IoStatus.Status = STATUS_PENDING;
    client->CurrentWaitIrp = irp;
    SetReferences(irp, kReferenceCancel | kReferenceReader);
    IoSetCancelRoutine(irp, CancelWait);
    bool satisfied;
    {
        SpinLockGuard clientLock(&client->Lock);
        client->WaitResultLocation = &SystemWord(irp);
        satisfied = client->HistoryMask != 0;
        if (satisfied) {
            ReportToWait(client, client->HistoryMask);
            client->HistoryMask = 0;
        }
    }
    *finished =
        satisfied ? ReleaseReference(client, nullptr, STATUS_SUCCESS, WaitSlot, kReferenceReader) : nullptr;
    return PromoteNext(client, MaskSlot);
}

// Whether a wait makes no sense now: nothing to wait for, or somebody waits already.
bool IsWaitRefused(CLIENT* client)
{
    CancelLockGuard cancelLock;
    SpinLockGuard clientLock(&client->Lock);
    return client->WaitMask == 0 || client->CurrentWaitIrp != nullptr;
}

PIRP WaitOnMask(CLIENT* client, PIRP irp, NTSTATUS* status)
{
    DEVICE_EXTENSION* extension = client->Device;
    irp->IoStatus.Information = 0;
    *status = IsWaitRefused(client) ? STATUS_INVALID_PARAMETER : STATUS_PENDING;

    PIRP next = nullptr;
    PIRP finished = nullptr;
    if (*status == STATUS_PENDING) {
        CancelLockGuard cancelLock;
        if (IsCancelled(client, irp))
            *status = STATUS_CANCELLED;
        else
            next = ArmWait(client, irp, &finished);
    }
    if (*status != STATUS_PENDING) {
        irp->IoStatus.Status = *status;
        return NextRequest(client, irp, MaskSlot);
    }
    if (finished != nullptr)
        CompleteCounted(extension, finished);
    return next;
}

// Serves the current mask request and those behind it. Returns the first one's status.
NTSTATUS StartMask(CLIENT* client)
{
    NTSTATUS firstStatus = STATUS_SUCCESS;
    bool first = true;
    for (PIRP irp = client->CurrentMaskIrp; irp != nullptr;) {
        NTSTATUS status = STATUS_SUCCESS;
        const ULONG code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
        irp =
            code == IOCTL_SERIAL_SET_WAIT_MASK ? SetWaitMask(client, irp) : WaitOnMask(client, irp, &status);
        if (first)
            firstStatus = status;
        first = false;
    }
    return firstStatus;
}

} // namespace

const REQUEST_SLOT MaskSlot = {&CLIENT::CurrentMaskIrp, &CLIENT::MaskQueue, false, nullptr, StartMask};
const REQUEST_SLOT WaitSlot = {&CLIENT::CurrentWaitIrp, nullptr, false, LeaveWait, nullptr};

NTSTATUS NTAPI WriteDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    const PendingIo pending(GetExtension(device));
    return CompleteRequest(irp, STATUS_SUCCESS, IoGetCurrentIrpStackLocation(irp)->Parameters.Write.Length);
}

bool NoteReceiveEvents(CLIENT* client, UCHAR firstByte)
{
    client->HistoryMask |= client->WaitMask & SERIAL_EV_RXCHAR;
    // why: only the first byte of a transfer is compared, and nothing sets an event character other than 0.
    if (firstByte == client->SpecialChars.EventChar)
        client->HistoryMask |= client->WaitMask & SERIAL_EV_RXFLAG;
    return client->WaitResultLocation != nullptr && client->HistoryMask != 0;
}

PIRP DeliverEvents(CLIENT* client)
{
    CancelLockGuard cancelLock;
    {
        SpinLockGuard clientLock(&client->Lock);
        if (client->WaitResultLocation == nullptr || client->HistoryMask == 0)
            return nullptr;
        ReportToWait(client, client->HistoryMask);
        client->HistoryMask = 0;
    }
    if (client->CurrentWaitIrp == nullptr) {
        // why: the text is as it has always been.
        DbgPrint("\nWhat tha HELLLL 0x%p\n", client);
        return nullptr;
    }
    return ReleaseReference(client, nullptr, STATUS_SUCCESS, WaitSlot, kReferenceReader);
}
