#include "navox_createclose.h"

#include "cdccomm.h"
#include "navox_devio.h"
#include "navox_read.h"
#include "navox_requests.h"
#include "navox_selsusp.h"
#include "navox_utils.h"
#include "registry_key.h"

namespace {

// What a fresh client reads first, so that an application that probes the port finds NMEA text at once.
constexpr char kEmptyFix[] = "$GPGGA,,,,,,0,00,0.5,,M,,,,*00\r\n";
constexpr ULONG kEmptyFixLength = sizeof(kEmptyFix) - 1;
static_assert(kEmptyFixLength == 32);

void NTAPI SignalTimersDrained(PKDPC, PVOID context, PVOID, PVOID)
{
    KeSetEvent(&static_cast<CLIENT*>(context)->TimersDrainedEvent, IO_NO_INCREMENT, FALSE);
}

void FreeClient(CLIENT* client)
{
    FreePool(client->Ring.RingBuffer, kTagRing);
    FreePool(client, kTagClient);
}

// Appends the client and mirrors the count in the registry. True for the first one.
bool LinkClient(DEVICE_EXTENSION* extension, CLIENT* client)
{
    FastMutexGuard mutex(&extension->ClientListMutex);
    bool first;
    ULONG count;
    {
        SpinLockGuard lock(&extension->ClientListLock);
        first = IsListEmpty(&extension->ClientList);
        if (first) {
            LARGE_INTEGER due;
            due.QuadPart = kReaderStartDelay;
            KeSetTimer(&extension->ReaderStartTimer, due, &extension->ReaderDpc);
        }
        InsertTailList(&extension->ClientList, &client->ListEntry);
        count = CountClients(extension);
    }
    (void)WriteOpenHandles(extension, count);
    return first;
}

// Unlinks the client, stops the reader behind the last one, and mirrors the count. True for the last one.
bool UnlinkClient(DEVICE_EXTENSION* extension, CLIENT* client)
{
    FastMutexGuard mutex(&extension->ClientListMutex);
    bool last;
    ULONG count;
    {
        SpinLockGuard lock(&extension->ClientListLock);
        RemoveEntryList(&client->ListEntry);
        last = IsListEmpty(&extension->ClientList);
        if (last) {
            KeRemoveQueueDpc(&extension->ReaderDpc);
            extension->AtCommandPending = TRUE;
            extension->CdcSetupPending = TRUE;
        }
        count = CountClients(extension);
    }
    // The mutex keeps the next first open out; the lower driver may complete the transfer here, under no spin
    // lock. ReaderStartTimer stays armed: its DPC finds an empty list.
    if (last)
        CancelReader(extension);
    (void)WriteOpenHandles(extension, count);
    return last;
}

// Waits until no callback of the client can still run.
void DrainTimers(CLIENT* client)
{
    // why: one is taken off although nothing was added, so this waits only while two or more are outstanding.
    if (InterlockedDecrement(&client->OutstandingTimers) > 0)
        KeWaitForSingleObject(&client->TimersDrainedEvent, Executive, KernelMode, FALSE, nullptr);
    // A DPC that completed the client's last request may still be on its way out of the client.
    KeFlushQueuedDpcs();
}

} // namespace

NTSTATUS CreateClient(CLIENT** result, DEVICE_EXTENSION* extension)
{
    PoolPointer<CLIENT, kTagClient> client;
    PoolPointer<UCHAR, kTagRing> ring;
    if (!client.Allocate(NonPagedPool) || !ring.Allocate(NonPagedPool, extension->ReadBufferSize))
        return STATUS_INSUFFICIENT_RESOURCES;

    RtlCopyMemory(ring.get(), kEmptyFix, kEmptyFixLength);
    client->Ring.Initialise(ring.Detach(), extension->ReadBufferSize, kEmptyFixLength);
    client->Device = extension;
    KeInitializeSpinLock(&client->Lock);
    KeInitializeSpinLock(&client->TimeoutsLock);
    KeInitializeTimer(&client->TotalTimer);
    KeInitializeTimer(&client->IntervalTimer);
    KeInitializeEvent(&client->TimersDrainedEvent, SynchronizationEvent, FALSE);
    KeInitializeDpc(&client->ReadCompletionDpc, ReadCompletionDpc, client.get());
    KeInitializeDpc(&client->TotalTimerDpc, TotalTimerDpc, client.get());
    KeInitializeDpc(&client->IntervalTimerDpc, IntervalTimerDpc, client.get());
    KeInitializeDpc(&client->EventDpc, SignalTimersDrained, client.get());
    client->ShortIntervalAmount = kShortIntervalAmount;
    client->LongIntervalAmount = kLongIntervalAmount;
    client->CutOverAmount = kCutOverAmount;
    InitializeListHead(&client->ReadQueue);
    InitializeListHead(&client->MaskQueue);
    InitializeListHead(&client->DeferredQueue);
    *result = client.Detach();
    return STATUS_SUCCESS;
}

ULONG CountClients(DEVICE_EXTENSION* extension)
{
    ULONG count = 0;
    for (PLIST_ENTRY entry = extension->ClientList.Flink; entry != &extension->ClientList;
         entry = entry->Flink)
        ++count;
    return count;
}

NTSTATUS WriteOpenHandles(DEVICE_EXTENSION* extension, ULONG count)
{
    const RegistryKey key(extension->PhysicalDeviceObject, PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_READ);
    NTSTATUS status = key.Status();
    if (NT_SUCCESS(status)) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, L"OpenHandles");
        status = ZwSetValueKey(key.Get(), &name, 0, REG_DWORD, &count, sizeof(count));
    }
    if (!NT_SUCCESS(status))
        TRACE(TRACE_CREATE, LEVEL_WARNING, "OpenHandles = %u not written: 0x%x", count, status);
    return status;
}

void CancelClientRequests(DEVICE_EXTENSION* extension, CLIENT* client)
{
    LIST_ENTRY cancelled;
    InitializeListHead(&cancelled);
    TakeClientRequests(client, &cancelled);
    CompleteAllCounted(extension, &cancelled);
}

void CancelAllClientRequests(DEVICE_EXTENSION* extension)
{
    {
        // Orders the flag before the walk: a request that was admitted before either sees it or is found below.
        CancelLockGuard cancelLock;
        extension->RequestsCancelled = TRUE;
    }
    // Completed behind the lock: with its last request gone, a client may be closed in this very thread.
    LIST_ENTRY cancelled;
    InitializeListHead(&cancelled);
    {
        SpinLockGuard lock(&extension->ClientListLock);
        PLIST_ENTRY head = &extension->ClientList;
        for (PLIST_ENTRY entry = head->Flink; entry != head; entry = entry->Flink)
            TakeClientRequests(ClientFromEntry(entry), &cancelled);
    }
    CompleteAllCounted(extension, &cancelled);
}

NTSTATUS NTAPI CreateDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    // why: an open is refused as if memory were short, not as a request to a leaving device would be.
    if (!IncrementIoCountIfStarted(extension))
        return CompleteRequest(irp, STATUS_INSUFFICIENT_RESOURCES);

    if (extension->IdleMonitorActive)
        CancelIdleRequest(extension);

    CLIENT* client = nullptr;
    NTSTATUS status = CreateClient(&client, extension);
    if (NT_SUCCESS(status)) {
        if (LinkClient(extension, client) && SetupLine(extension) != STATUS_SUCCESS)
            extension->CdcSetupPending = TRUE;
        IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext = client;
        extension->FirstOpenSinceStart = FALSE;
    }
    TRACE(TRACE_CREATE, LEVEL_INFORMATION, "open: 0x%x", status);
    CompleteRequest(irp, status);
    DecrementIoCount(extension);
    return status;
}

NTSTATUS NTAPI CleanupDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    const PendingIo pending(extension);
    CancelClientRequests(extension, ClientOf(irp));
    return CompleteRequest(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI CloseDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    const PendingIo pending(extension);
    CLIENT* client = ClientOf(irp);
    if (UnlinkClient(extension, client)) {
        const NTSTATUS status = ReleaseLine(extension);
        if (!NT_SUCCESS(status))
            TRACE(TRACE_CREATE, LEVEL_WARNING, "line not released: 0x%x", status);
    }
    DrainTimers(client);
    FreeClient(client);
    return CompleteRequest(irp, STATUS_SUCCESS);
}
