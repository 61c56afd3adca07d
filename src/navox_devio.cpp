#include "navox_devio.h"

#include "cdccomm.h"
#include "navox_requests.h"
#include "navox_sendatcommand.h"
#include "navox_usb.h"
#include "navox_utils.h"
#include "navox_write.h"

void QueueReader(DEVICE_EXTENSION* extension)
{
    SpinLockGuard guard(&extension->StateLock);
    if (extension->DevicePnPState != STATE_REMOVED)
        KeInsertQueueDpc(&extension->ReaderDpc, nullptr, nullptr);
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

namespace {

NTSTATUS NTAPI SignalTransferred(PDEVICE_OBJECT, PIRP, PVOID context)
{
    KeSetEvent(static_cast<PKEVENT>(context), 1, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// The request goes to the bus and comes back. While it is outstanding, ReaderIrp offers it to whoever wants
// to cancel it. Returns false if somebody did.
bool SendAndWait(DEVICE_EXTENSION* extension, PIRP irp, KEVENT* done)
{
    extension->ReaderCancelled = FALSE;
    InterlockedExchangePointer(reinterpret_cast<PVOID*>(&extension->ReaderIrp), irp);
    // Who wanted to cancel before there was anything to take has come for nothing.
    if (GetPnpState(extension) != STATE_STARTED || !HasClients(extension))
        CancelReader(extension);
    if (IoCallDriver(extension->LowerDeviceObject, irp) == STATUS_PENDING)
        KeWaitForSingleObject(done, Executive, KernelMode, FALSE, nullptr);
    if (TakeIrp(&extension->ReaderIrp) == nullptr) {
        // A canceller has it; the request must outlive its IoCancelIrp.
        KeWaitForSingleObject(&extension->ReaderCancelEvent, Executive, KernelMode, FALSE, nullptr);
    }
    return !extension->ReaderCancelled;
}

// Judges a transfer that came back, and delivers it.
void ProcessTransfer(DEVICE_EXTENSION* extension, NTSTATUS status, const URB* urb)
{
    if (status == STATUS_UNSUCCESSFUL || status == STATUS_DEVICE_NOT_CONNECTED)
        extension->ReaderHalted = TRUE;
    else if (status == STATUS_SUCCESS)
        extension->ReaderHalted = FALSE;
    const ULONG received = urb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    extension->BytesReceived = received < extension->ReadBufferSize ? received : extension->ReadBufferSize;
    if (urb->UrbHeader.Status == USBD_STATUS_SUCCESS && extension->ReadBuffer != nullptr)
        FanOut(extension, extension->BytesReceived, extension->ReadBuffer);
}

NTSTATUS TransferCounted(DEVICE_EXTENSION* extension)
{
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    const PIRP irp = IoAllocateIrp(extension->LowerDeviceObject->StackSize, FALSE);
    PoolPointer<URB, kTagReaderUrb> urb;
    if (irp != nullptr && urb.Allocate(NonPagedPool, kUrbAllocation)) {
        RtlZeroMemory(extension->ReadBuffer, extension->ReadBufferSize);
        BuildTransferUrb(urb.get(), extension->BulkInPipe, extension->ReadBuffer, extension->ReadBufferSize);
        PrepareUrbIrp(irp, urb.get());
        IoSetCompletionRoutine(irp, SignalTransferred, &done, TRUE, TRUE, TRUE);
        if (SendAndWait(extension, irp, &done)) {
            status = irp->IoStatus.Status;
            ProcessTransfer(extension, status, urb.get());
        } else {
            extension->ReaderHalted = TRUE;
            status = STATUS_SUCCESS;
        }
    }
    if (irp != nullptr)
        IoFreeIrp(irp);
    return status;
}

// One transfer. A status other than STATUS_SUCCESS ends the cycle; a cancelled transfer ends it through
// ReaderHalted.
NTSTATUS TransferOnce(DEVICE_EXTENSION* extension)
{
    // Counted before the buffer is touched: removal frees the buffer only when the count has gone.
    const PendingIoIfStarted pending(extension);
    return pending ? TransferCounted(extension) : STATUS_DELETE_PENDING;
}

// Counted as a whole: it resets a pipe, which a stop between two of its requests would close.
void SetUpLineCounted(DEVICE_EXTENSION* extension)
{
    const PendingIoIfStarted pending(extension);
    if (!pending)
        return;
    extension->CdcSetupPending = FALSE;
    (void)SetupLine(extension);
}

// One round of the cycle. False ends it.
bool RunCycle(DEVICE_EXTENSION* extension)
{
    // An open during a running cycle must not start a second one.
    KeCancelTimer(&extension->ReaderStartTimer);
    if (extension->DevicePnPState != STATE_STARTED)
        return false;
    if (extension->AtCommandPending) {
        if (extension->CdcSetupPending)
            SetUpLineCounted(extension);
        else
            (void)SendAtCommand(extension);
    } else {
        const NTSTATUS status = TransferOnce(extension);
        if (status != STATUS_SUCCESS) {
            TRACE(TRACE_READER, LEVEL_WARNING, "reading ends: 0x%x", status);
            return false;
        }
    }
    return !extension->ReaderHalted;
}

// why: the work item is not freed. Each round leaves one behind.
void NTAPI ReaderWorkItem(PDEVICE_OBJECT device, PVOID)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    const bool goOn = RunCycle(extension);
    // A start that found this round running is made good now.
    const bool wanted = InterlockedExchange(&extension->ReaderCycle, ReaderCycleIdle) == ReaderCycleWanted;
    if (goOn || wanted)
        QueueReader(extension);
}

// True: no round is running, and the caller may start one. False: the running round will start the next.
bool ClaimCycle(DEVICE_EXTENSION* extension)
{
    if (InterlockedCompareExchange(&extension->ReaderCycle, ReaderCycleRunning, ReaderCycleIdle) ==
        ReaderCycleIdle)
        return true;
    if (InterlockedCompareExchange(&extension->ReaderCycle, ReaderCycleWanted, ReaderCycleRunning) !=
        ReaderCycleIdle)
        return false;
    // The round ended between the two looks.
    return InterlockedCompareExchange(&extension->ReaderCycle, ReaderCycleRunning, ReaderCycleIdle) ==
           ReaderCycleIdle;
}

// Copies a transfer to one client. Returns a wait request that this has ended, or null.
PIRP DeliverToClient(CLIENT* client, ULONG length, const UCHAR* bytes)
{
    bool tellWait = false;
    {
        SpinLockGuard clientLock(&client->Lock);
        if (client->Ring.Append(bytes, length)) {
            const PIRP irp = client->CurrentReadIrp;
            irp->IoStatus.Information = IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length;
            RaiseTimerCounts(client);
            if (!KeInsertQueueDpc(&client->ReadCompletionDpc, nullptr, nullptr))
                LowerTimerCounts(client);
        }
        if (client->WaitMask != 0)
            tellWait = NoteReceiveEvents(client, bytes[0]);
    }
    return tellWait ? DeliverEvents(client) : nullptr;
}

bool IsReady(const DEVICE_EXTENSION* extension)
{
    return extension->DevicePowerState == PowerDeviceD0 && extension->DevicePnPState == STATE_STARTED;
}

// Whether the device is up and started. If it is on its way up, reading goes on when it has arrived.
bool MayRead(DEVICE_EXTENSION* extension)
{
    if (IsReady(extension))
        return true;
    if (extension->DevicePowerState == PowerDeviceD0 && extension->DevicePnPState != STATE_POWER_QUERIED)
        return false;
    InterlockedExchange(&extension->ReaderDeferred, TRUE);
    // It may have arrived between the look and the note.
    return IsReady(extension) && InterlockedExchange(&extension->ReaderDeferred, FALSE) != FALSE;
}

} // namespace

void FanOut(DEVICE_EXTENSION* extension, ULONG length, const UCHAR* bytes)
{
    // Waits that end are completed behind the lock: an application's completion may do anything.
    LIST_ENTRY finished;
    InitializeListHead(&finished);
    {
        SpinLockGuard lock(&extension->ClientListLock);
        PLIST_ENTRY head = &extension->ClientList;
        for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink) {
            if (const PIRP wait = DeliverToClient(ClientFromEntry(entry), length, bytes))
                InsertTailList(&finished, &wait->Tail.Overlay.ListEntry);
        }
    }
    CompleteAllCounted(extension, &finished);
}

void NTAPI ReaderDpc(PKDPC, PVOID context, PVOID, PVOID)
{
    const auto device = static_cast<PDEVICE_OBJECT>(context);
    DEVICE_EXTENSION* extension = GetExtension(device);
    extension->ReaderHalted = FALSE;
    if (!HasClients(extension) || !MayRead(extension))
        return;
    if (!ClaimCycle(extension)) {
        // The running round may wait for data that a module which has to be set up anew will never send.
        if (extension->AtCommandPending)
            CancelReader(extension);
        return;
    }
    const PIO_WORKITEM item = IoAllocateWorkItem(device);
    if (item != nullptr) {
        IoQueueWorkItem(item, ReaderWorkItem, DelayedWorkQueue, nullptr);
        return;
    }
    InterlockedExchange(&extension->ReaderCycle, ReaderCycleIdle);
    QueueReader(extension); // try again
}
