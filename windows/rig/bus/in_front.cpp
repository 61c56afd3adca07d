// In front of the driver under test: three of its dispatch routines are reached through the bus, which adds what Wine's
// I/O manager leaves out.
//
//   CREATE  counts the open files
//   CLOSE   sends the CLEANUP that Wine never sends
//   PNP     keeps REMOVE until the last file is closed; Wine sends it while files are open, and then neither CLEANUP
//           nor CLOSE for them
#include "windows/rig/bus/bus.h"

namespace {

struct Device {
    PDEVICE_OBJECT device; // null: free
    LONG open;
    PIRP held; // REMOVE
};

struct InFront {
    PDRIVER_OBJECT driver;
    PDRIVER_DISPATCH create;
    PDRIVER_DISPATCH close;
    PDRIVER_DISPATCH pnp;
    KSPIN_LOCK lock;
    Device devices[kRigPorts * 2];
};

constinit InFront g_front = {};

class Guard {
  public:
    Guard() { KeAcquireSpinLock(&g_front.lock, &irql_); }
    ~Guard() { KeReleaseSpinLock(&g_front.lock, irql_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    KIRQL irql_ = PASSIVE_LEVEL;
};

Device* Find(PDEVICE_OBJECT device)
{
    for (Device& entry : g_front.devices) {
        if (entry.device == device)
            return &entry;
    }
    return nullptr;
}

// The level must be back where it was when a dispatch routine returns.
NTSTATUS Call(PDRIVER_DISPATCH routine, PDEVICE_OBJECT device, PIRP irp, const char* name)
{
    const UCHAR before = RigIrql();
    const NTSTATUS status = routine(device, irp);
    if (RigSetIrql(before) != before)
        RigReport("%s left the level changed", name);
    return status;
}

NTSTATUS NTAPI Create(PDEVICE_OBJECT device, PIRP irp)
{
    const NTSTATUS status = Call(g_front.create, device, irp, "CREATE");
    if (status == STATUS_PENDING)
        RigReport("CREATE pends: the open files can not be counted");
    if (status == STATUS_SUCCESS) {
        const Guard guard;
        if (Device* entry = Find(device))
            ++entry->open;
    }
    return status;
}

void SendCleanup(PDEVICE_OBJECT device, PIRP close)
{
    const PFILE_OBJECT file = IoGetCurrentIrpStackLocation(close)->FileObject;
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp == nullptr)
        return;
    irp->RequestorMode = close->RequestorMode;
    irp->Tail.Overlay.Thread = close->Tail.Overlay.Thread;
    irp->Tail.Overlay.OriginalFileObject = file;
    const PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_CLEANUP;
    location->FileObject = file;
    SendAndWait(device, irp);
}

void NTAPI SendHeldRemove(PVOID context)
{
    const auto irp = static_cast<PIRP>(context);
    Call(g_front.pnp, IoGetCurrentIrpStackLocation(irp)->DeviceObject, irp, "REMOVE");
}

NTSTATUS NTAPI Close(PDEVICE_OBJECT device, PIRP irp)
{
    SendCleanup(device, irp);
    const NTSTATUS status = Call(g_front.close, device, irp, "CLOSE");
    PIRP held = nullptr;
    {
        const Guard guard;
        Device* entry = Find(device);
        if (entry != nullptr && --entry->open == 0) {
            held = entry->held;
            if (held != nullptr)
                *entry = {};
        }
    }
    // Not here, for the system sends REMOVE from a thread of its own.
    if (held != nullptr && !NT_SUCCESS(StartThread(SendHeldRemove, held)))
        RigReport("no thread for REMOVE");
    return status;
}

NTSTATUS NTAPI Pnp(PDEVICE_OBJECT device, PIRP irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MinorFunction != IRP_MN_REMOVE_DEVICE)
        return Call(g_front.pnp, device, irp, "PNP");
    {
        const Guard guard;
        Device* entry = Find(device);
        if (entry != nullptr && entry->open != 0) {
            IoMarkIrpPending(irp);
            entry->held = irp;
            return STATUS_PENDING;
        }
        if (entry != nullptr)
            *entry = {};
    }
    return Call(g_front.pnp, device, irp, "REMOVE");
}

void Exchange(PDRIVER_DISPATCH& original, PDRIVER_DISPATCH& entry, PDRIVER_DISPATCH replacement)
{
    original = entry;
    entry = replacement;
}

} // namespace

void StepInFront(PDEVICE_OBJECT top)
{
    const PDRIVER_OBJECT driver = top->DriverObject;
    if (g_front.driver == nullptr) {
        g_front.driver = driver;
        Exchange(g_front.create, driver->MajorFunction[IRP_MJ_CREATE], Create);
        Exchange(g_front.close, driver->MajorFunction[IRP_MJ_CLOSE], Close);
        Exchange(g_front.pnp, driver->MajorFunction[IRP_MJ_PNP], Pnp);
    }
    if (g_front.driver != driver)
        RigReport("a second driver claims a module; it is not watched");
    const Guard guard;
    if (Find(top) != nullptr) // it was started before
        return;
    if (Device* entry = Find(nullptr))
        entry->device = top;
}

ULONG OpenFiles()
{
    const Guard guard;
    LONG open = 0;
    for (const Device& entry : g_front.devices)
        open += entry.open;
    return static_cast<ULONG>(open);
}
