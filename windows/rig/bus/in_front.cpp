// In front of the driver under test: its dispatch routines for files and for Plug and Play are reached through the bus,
// which adds what Wine's I/O manager leaves out.
//
//   CREATE          counts the open files, and marks those that the driver refuses: Wine gives its caller a handle all
//                   the same
//   READ, WRITE, DEVICE_CONTROL
//                   end at once, with the status of the CREATE, on such a file; the driver knows nothing of it
//   CLOSE           sends the CLEANUP that Wine never sends
//   CLEANUP, POWER, SYSTEM_CONTROL
//                   go straight on: only the level is looked at, as with all of them
//   PNP             keeps REMOVE, and with it Wine's thread for it, until the last file is closed; Wine sends it while
//                   files are open, and then neither CLEANUP nor CLOSE for them. It does not take STATUS_PENDING for it
#include "windows/rig/bus/bus.h"

namespace {

struct Device {
    PDEVICE_OBJECT device; // null: free
    const Port* port;
    LONG open;
    bool started; // START has come to its end
};

// A file that the driver has refused to open.
struct Refused {
    PFILE_OBJECT file; // null: free
    NTSTATUS status;
};

struct InFront {
    PDRIVER_OBJECT driver;
    PDRIVER_DISPATCH original[IRP_MJ_MAXIMUM_FUNCTION + 1];
    KSPIN_LOCK lock;
    KEVENT closed; // a device's last file; REMOVE may wait for it
    Device devices[kRigPorts * 2];
    Refused refused[16];
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

PFILE_OBJECT FileOf(PIRP irp)
{
    return IoGetCurrentIrpStackLocation(irp)->FileObject;
}

Refused* FindRefused(PFILE_OBJECT file)
{
    for (Refused& entry : g_front.refused) {
        if (entry.file == file)
            return &entry;
    }
    return nullptr;
}

// The driver's own routine. The level must be back where it was when it returns.
NTSTATUS NTAPI Call(PDEVICE_OBJECT device, PIRP irp)
{
    const UCHAR before = RigIrql();
    const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    const NTSTATUS status = g_front.original[major](device, irp);
    if (RigSetIrql(before) != before)
        RigReport("the dispatch routine for IRP_MJ 0x%x left the level changed", major);
    return status;
}

void NoteRefused(PFILE_OBJECT file, NTSTATUS status)
{
    const Guard guard;
    if (Refused* entry = FindRefused(nullptr))
        *entry = {file, status};
    else
        RigReport("too many files that were refused");
}

NTSTATUS NTAPI Create(PDEVICE_OBJECT device, PIRP irp)
{
    const PFILE_OBJECT file = FileOf(irp);
    const NTSTATUS status = Call(device, irp);
    if (status == STATUS_PENDING)
        RigReport("CREATE pends: the open files can not be counted");
    if (!NT_SUCCESS(status))
        NoteRefused(file, status);
    const Guard guard;
    Device* entry = Find(device);
    if (NT_SUCCESS(status) && entry != nullptr)
        ++entry->open;
    return status;
}

NTSTATUS NTAPI FileRequest(PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const bool asks = location->MajorFunction == IRP_MJ_DEVICE_CONTROL &&
                      location->Parameters.DeviceIoControl.IoControlCode == RIG_OPEN_STATUS;
    NTSTATUS status = STATUS_SUCCESS;
    {
        const Guard guard;
        if (const Refused* entry = FindRefused(location->FileObject))
            status = entry->status;
    }
    return asks || !NT_SUCCESS(status) ? Complete(irp, status) : Call(device, irp);
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

void NoteClosed(PDEVICE_OBJECT device)
{
    const Guard guard;
    Device* entry = Find(device);
    if (entry != nullptr && --entry->open == 0)
        KeSetEvent(&g_front.closed, IO_NO_INCREMENT, FALSE);
}

bool HasOpenFiles(PDEVICE_OBJECT device)
{
    const Guard guard;
    const Device* entry = Find(device);
    return entry != nullptr && entry->open != 0;
}

bool ForgetRefused(PFILE_OBJECT file)
{
    const Guard guard;
    Refused* entry = FindRefused(file);
    if (entry != nullptr)
        *entry = {};
    return entry != nullptr;
}

NTSTATUS NTAPI Close(PDEVICE_OBJECT device, PIRP irp)
{
    if (ForgetRefused(FileOf(irp)))
        return Complete(irp, STATUS_SUCCESS);
    SendCleanup(device, irp);
    const NTSTATUS status = Call(device, irp);
    NoteClosed(device);
    return status;
}

void AskCapabilities(PDEVICE_OBJECT device)
{
    // Not on the stack, should it come back late. Devices start one after the other.
    static constinit DEVICE_CAPABILITIES capabilities = {};
    RtlZeroMemory(&capabilities, sizeof capabilities);
    capabilities.Size = sizeof capabilities;
    capabilities.Version = 1;
    capabilities.Address = ~0UL;
    capabilities.UINumber = ~0UL;
    const PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    if (irp == nullptr)
        return;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    const PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_PNP;
    location->MinorFunction = IRP_MN_QUERY_CAPABILITIES;
    location->Parameters.DeviceCapabilities.Capabilities = &capabilities;
    SendAndWait(device, irp);
    // The port's own device leaves this to the driver.
    if (!capabilities.SurpriseRemovalOK)
        RigReport("the driver does not say that its device may be pulled");
}

NTSTATUS StartDevice(PDEVICE_OBJECT device, PIRP irp)
{
    const NTSTATUS status = Call(device, irp);
    if (NT_SUCCESS(status))
        AskCapabilities(device);
    const Guard guard;
    if (Device* entry = Find(device))
        entry->started = status == STATUS_SUCCESS;
    return status;
}

NTSTATUS RemoveDevice(PDEVICE_OBJECT device, PIRP irp)
{
    while (HasOpenFiles(device))
        KeWaitForSingleObject(&g_front.closed, Executive, KernelMode, FALSE, nullptr);
    const NTSTATUS status = Call(device, irp);
    const Guard guard;
    if (Device* entry = Find(device))
        *entry = {};
    return status;
}

NTSTATUS NTAPI Pnp(PDEVICE_OBJECT device, PIRP irp)
{
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_START_DEVICE: return StartDevice(device, irp);
    case IRP_MN_REMOVE_DEVICE: return RemoveDevice(device, irp);
    default: return Call(device, irp);
    }
}

void StepInFront(PDRIVER_OBJECT driver, UCHAR major, PDRIVER_DISPATCH routine)
{
    g_front.original[major] = driver->MajorFunction[major];
    driver->MajorFunction[major] = routine;
}

} // namespace

void StepInFront(PDRIVER_OBJECT driver)
{
    if (g_front.driver != nullptr) {
        if (g_front.driver != driver)
            RigReport("a second driver claims a module; it is not watched");
        return;
    }
    g_front.driver = driver;
    KeInitializeEvent(&g_front.closed, SynchronizationEvent, FALSE);
    StepInFront(driver, IRP_MJ_CREATE, Create);
    StepInFront(driver, IRP_MJ_CLOSE, Close);
    StepInFront(driver, IRP_MJ_READ, FileRequest);
    StepInFront(driver, IRP_MJ_WRITE, FileRequest);
    StepInFront(driver, IRP_MJ_DEVICE_CONTROL, FileRequest);
    for (const auto major : {UCHAR{IRP_MJ_CLEANUP}, UCHAR{IRP_MJ_POWER}, UCHAR{IRP_MJ_SYSTEM_CONTROL}})
        StepInFront(driver, major, Call);
    StepInFront(driver, IRP_MJ_PNP, Pnp);
}

void Attached(PDEVICE_OBJECT top, const Port& port)
{
    const Guard guard;
    Device* entry = Find(top) != nullptr ? nullptr : Find(nullptr);
    if (entry != nullptr)
        *entry = {top, &port, 0, false};
}

bool HasDriver(const Port& port, bool* started)
{
    const Guard guard;
    for (const Device& entry : g_front.devices) {
        if (entry.device == nullptr || entry.port != &port)
            continue;
        *started = entry.started;
        return true;
    }
    return false;
}

ULONG OpenFiles()
{
    const Guard guard;
    LONG open = 0;
    for (const Device& entry : g_front.devices)
        open += entry.open;
    return static_cast<ULONG>(open);
}
