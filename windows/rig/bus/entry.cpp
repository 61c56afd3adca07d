#include "windows/rig/bus/bus.h"

constinit Bus g_bus = {};

namespace {

UNICODE_STRING Text(const wchar_t* text)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

// The devices that the modules in the ports have.
NTSTATUS AnswerRelations(PIRP irp)
{
    auto* relations = static_cast<PDEVICE_RELATIONS>(
        ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS) + kRigPorts * sizeof(PVOID), kTag));
    if (relations == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    relations->Count = 0;
    for (Port& port : g_bus.ports) {
        if (port.plugged == 0 || port.pdo == nullptr)
            continue;
        ObReferenceObject(port.pdo);
        relations->Objects[relations->Count++] = port.pdo;
    }
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
    return STATUS_SUCCESS;
}

NTSTATUS BusPnp(PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const PDEVICE_OBJECT lower = ExtensionOf(device)->lower;
    NTSTATUS status = STATUS_SUCCESS;
    switch (location->MinorFunction) {
    case IRP_MN_QUERY_DEVICE_RELATIONS:
        if (location->Parameters.QueryDeviceRelations.Type == BusRelations)
            status = AnswerRelations(irp);
        else
            status = irp->IoStatus.Status;
        break;
    case IRP_MN_REMOVE_DEVICE:
        g_bus.fdo = nullptr;
        irp->IoStatus.Status = STATUS_SUCCESS;
        IoSkipCurrentIrpStackLocation(irp);
        status = IoCallDriver(lower, irp);
        IoDetachDevice(lower);
        IoDeleteDevice(device);
        return status;
    case IRP_MN_START_DEVICE:
        // Wine does not ask for the bus's devices by itself.
        IoInvalidateDeviceRelations(g_bus.pdo, BusRelations);
        break;
    default: break;
    }
    irp->IoStatus.Status = status;
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(lower, irp);
}

NTSTATUS NTAPI Pnp(PDEVICE_OBJECT device, PIRP irp)
{
    switch (ExtensionOf(device)->kind) {
    case BusDevice: return BusPnp(device, irp);
    case PortDevice: return PortPnp(device, irp);
    default: return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS NTAPI Power(PDEVICE_OBJECT device, PIRP irp)
{
    if (ExtensionOf(device)->kind == PortDevice)
        return PortPower(device, irp);
    return Complete(irp, STATUS_NOT_SUPPORTED);
}

NTSTATUS NTAPI InternalControl(PDEVICE_OBJECT device, PIRP irp)
{
    const Extension* extension = ExtensionOf(device);
    if (extension->kind != PortDevice)
        return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    switch (IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_INTERNAL_USB_SUBMIT_URB: return SubmitUrb(*extension->port, irp);
    case IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION: return SubmitIdle(*extension->port, irp);
    default: return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS NTAPI Control(PDEVICE_OBJECT device, PIRP irp)
{
    return ExtensionOf(device)->kind == ControlDevice ? ControlRequest(irp)
                                                      : Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS NTAPI OpenOrClose(PDEVICE_OBJECT device, PIRP irp)
{
    return Complete(irp, ExtensionOf(device)->kind == ControlDevice ? STATUS_SUCCESS
                                                                    : STATUS_INVALID_DEVICE_REQUEST);
}

// What is not for this driver ends here with the status it came with.
NTSTATUS NTAPI SystemControl(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
}

NTSTATUS NTAPI AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo)
{
    PDEVICE_OBJECT device = nullptr;
    const NTSTATUS status =
        IoCreateDevice(driver, sizeof(Extension), nullptr, FILE_DEVICE_BUS_EXTENDER, 0, FALSE, &device);
    if (!NT_SUCCESS(status))
        return status;
    *ExtensionOf(device) = {BusDevice, nullptr, IoAttachDeviceToDeviceStack(device, pdo)};
    g_bus.pdo = pdo;
    g_bus.fdo = device;
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

NTSTATUS MakeControlDevice(PDRIVER_OBJECT driver)
{
    UNICODE_STRING name = Text(L"\\Device\\NavoxRig");
    UNICODE_STRING link = Text(L"\\DosDevices\\NavoxRig");
    NTSTATUS status =
        IoCreateDevice(driver, sizeof(Extension), &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &g_bus.control);
    if (!NT_SUCCESS(status))
        return status;
    *ExtensionOf(g_bus.control) = {ControlDevice, nullptr, nullptr};
    g_bus.control->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return IoCreateSymbolicLink(&link, &name);
}

struct Wait {
    KEVENT done;
    volatile LONG owners; // the sender and the completion routine
    NTSTATUS status;
    ULONG_PTR information;
};

void Leave(Wait* wait)
{
    if (InterlockedDecrement(&wait->owners) == 0)
        ExFreePoolWithTag(wait, kTag);
}

NTSTATUS NTAPI NoteEnd(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* wait = static_cast<Wait*>(context);
    wait->status = irp->IoStatus.Status;
    wait->information = irp->IoStatus.Information;
    IoFreeIrp(irp);
    KeSetEvent(&wait->done, IO_NO_INCREMENT, FALSE);
    Leave(wait);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS StartThread(PKSTART_ROUTINE routine, PVOID context)
{
    HANDLE thread = nullptr;
    const NTSTATUS status =
        PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context);
    if (NT_SUCCESS(status))
        ZwClose(thread);
    return status;
}

NTSTATUS SendAndWait(PDEVICE_OBJECT device, PIRP irp, ULONG_PTR* information)
{
    auto* wait = static_cast<Wait*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Wait), kTag));
    if (wait == nullptr) {
        IoFreeIrp(irp);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    KeInitializeEvent(&wait->done, NotificationEvent, FALSE);
    wait->owners = 2;
    const PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    const ULONG major = location->MajorFunction;
    const ULONG minor = location->MinorFunction;
    IoSetCompletionRoutine(irp, NoteEnd, wait, TRUE, TRUE, TRUE);
    IoCallDriver(device, irp);

    LARGE_INTEGER timeout;
    timeout.QuadPart = -100'000'000;
    NTSTATUS status = KeWaitForSingleObject(&wait->done, Executive, KernelMode, FALSE, &timeout);
    if (status == STATUS_TIMEOUT) {
        status = STATUS_IO_TIMEOUT;
        RigReport("IRP %lx:%lx was not completed within ten seconds", major, minor);
    } else {
        status = wait->status;
        if (information != nullptr)
            *information = wait->information;
    }
    Leave(wait);
    return status;
}

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    g_bus.driver = driver;
    KeInitializeEvent(&g_bus.pump, SynchronizationEvent, FALSE);
    for (ULONG i = 0; i < kRigPorts; ++i) {
        Port& port = g_bus.ports[i];
        port.number = i;
        ExInitializeFastMutex(&port.module_mutex);
        KeInitializeSpinLock(&port.lock);
        InitializeListHead(&port.queue);
    }
    driver->MajorFunction[IRP_MJ_PNP] = Pnp;
    driver->MajorFunction[IRP_MJ_POWER] = Power;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = InternalControl;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    driver->MajorFunction[IRP_MJ_CREATE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OpenOrClose;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = SystemControl;
    driver->DriverExtension->AddDevice = AddDevice;
    NTSTATUS status = ReplaceRoutines();
    if (NT_SUCCESS(status))
        status = StartDeferred();
    if (NT_SUCCESS(status))
        status = WatchForImage();
    if (NT_SUCCESS(status))
        status = MakeControlDevice(driver);
    if (NT_SUCCESS(status))
        status = StartControl();
    return NT_SUCCESS(status) ? StartThread(Pump, nullptr) : status;
}
