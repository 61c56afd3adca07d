// The control device: requests are queued as they come and carried out by a thread of its own. Wine dispatches all
// requests of all files from one thread, which must never wait.
#include "windows/rig/bus/bus.h"

namespace {

struct ControlQueue {
    KSPIN_LOCK lock;
    LIST_ENTRY irps;
    KEVENT event;
};

constinit ControlQueue g_queue = {};

// Every request's buffer begins with a port's number.
Port* PortOf(const void* buffer)
{
    const ULONG number = static_cast<const RigPortRequest*>(buffer)->port;
    return number < kRigPorts ? &g_bus.ports[number] : nullptr;
}

NTSTATUS Plug(Port& port, void* buffer)
{
    bool started = false;
    if (port.pdo != nullptr || HasDriver(port, &started))
        return STATUS_DEVICE_BUSY;
    RigModule* module = RigModuleCreate(static_cast<const RigPlug*>(buffer));
    if (module == nullptr)
        return STATUS_INVALID_PARAMETER;
    const NTSTATUS status = MakePortDevice(port);
    if (!NT_SUCCESS(status)) {
        RigModuleDestroy(module);
        return status;
    }
    ExAcquireFastMutex(&port.module_mutex);
    port.module = module;
    port.module_power = PowerDeviceD0;
    port.power = PowerDeviceD0;
    port.configuration = 0;
    port.urbs = 0;
    port.wmi = 0;
    RtlZeroMemory(port.pipes, sizeof port.pipes);
    ExReleaseFastMutex(&port.module_mutex);
    port.plugged = 1;
    IoInvalidateDeviceRelations(g_bus.pdo, BusRelations);
    return STATUS_SUCCESS;
}

NTSTATUS Unplug(Port& port, void*)
{
    if (InterlockedExchange(&port.plugged, 0) == 0)
        return STATUS_DEVICE_NOT_CONNECTED;
    ExAcquireFastMutex(&port.module_mutex);
    RigModuleDestroy(port.module);
    port.module = nullptr;
    ExReleaseFastMutex(&port.module_mutex);
    FailUrbs(port);
    EndIdle(port, STATUS_DEVICE_NOT_CONNECTED);
    IoInvalidateDeviceRelations(g_bus.pdo, BusRelations);
    return STATUS_SUCCESS;
}

// Runs `action` with the port's module.
template <class Action>
NTSTATUS WithModule(Port& port, Action action)
{
    ExAcquireFastMutex(&port.module_mutex);
    const bool there = port.module != nullptr;
    if (there)
        action(port.module);
    ExReleaseFastMutex(&port.module_mutex);
    KeSetEvent(&g_bus.pump, IO_NO_INCREMENT, FALSE);
    return there ? STATUS_SUCCESS : STATUS_DEVICE_NOT_CONNECTED;
}

NTSTATUS Release(Port& port, void*)
{
    return WithModule(port, RigModuleRelease);
}

NTSTATUS Feed(Port& port, void* buffer)
{
    const auto& feed = *static_cast<const RigFeed*>(buffer);
    if (feed.length > sizeof feed.text)
        return STATUS_INVALID_PARAMETER;
    return WithModule(port, [&](RigModule* module) { RigModuleFeed(module, feed.text, feed.length); });
}

// Sends a request to the top of the port's stack. `fill` is given the request's stack location and the device on top,
// `answer` gets the status that it ends with. Fails without a device or memory.
template <class Fill>
NTSTATUS Send(Port& port, UCHAR major, UCHAR minor, Fill fill, long& answer, ULONG_PTR* information = nullptr)
{
    if (port.pdo == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(port.pdo);
    const PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
    if (irp != nullptr) {
        irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
        const PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
        location->MajorFunction = major;
        location->MinorFunction = minor;
        fill(*location, top);
        answer = SendAndWait(top, irp, information);
    }
    ObDereferenceObject(top);
    return irp != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

NTSTATUS SendPnp(Port& port, void* buffer)
{
    const UCHAR minor = static_cast<const RigIrpRequest*>(buffer)->minor;
    return Send(
        port, IRP_MJ_PNP, minor, [](IO_STACK_LOCATION&, PDEVICE_OBJECT) {},
        static_cast<RigIrpAnswer*>(buffer)->status);
}

NTSTATUS SendPower(Port& port, void* buffer)
{
    const RigIrpRequest request = *static_cast<const RigIrpRequest*>(buffer);
    const auto fill = [&request](IO_STACK_LOCATION& location, PDEVICE_OBJECT) {
        auto& power = location.Parameters.Power;
        power.Type = request.system != 0 ? SystemPowerState : DevicePowerState;
        if (request.system != 0)
            power.State.SystemState = static_cast<SYSTEM_POWER_STATE>(request.state);
        else
            power.State.DeviceState = static_cast<DEVICE_POWER_STATE>(request.state);
    };
    return Send(port, IRP_MJ_POWER, request.minor, fill, static_cast<RigIrpAnswer*>(buffer)->status);
}

NTSTATUS SendWmi(Port& port, void* buffer)
{
    static constinit RigWmiRequest request = {}; // of the one control thread
    request = *static_cast<const RigWmiRequest*>(buffer);
    if (request.length > sizeof request.data)
        return STATUS_INVALID_PARAMETER;
    const auto fill = [](IO_STACK_LOCATION& location, PDEVICE_OBJECT top) {
        auto& wmi = location.Parameters.WMI;
        wmi.ProviderId = reinterpret_cast<ULONG_PTR>(top);
        wmi.DataPath = request.minor == IRP_MN_REGINFO ? nullptr : request.guid;
        wmi.BufferSize = request.length;
        wmi.Buffer = request.data;
    };
    ULONG_PTR information = 0;
    auto& answer = *static_cast<RigWmiAnswer*>(buffer);
    const NTSTATUS status =
        Send(port, IRP_MJ_SYSTEM_CONTROL, request.minor, fill, answer.status, &information);
    answer.length = static_cast<unsigned>(information);
    RtlCopyMemory(answer.data, request.data, sizeof answer.data);
    return status;
}

NTSTATUS Counters(Port& port, void* buffer)
{
    auto& counters = *static_cast<RigCounters*>(buffer);
    RtlZeroMemory(&counters, sizeof counters);
    WithModule(port, [&](RigModule* module) { RigModuleLook(module, &counters); });
    counters.plugged = static_cast<unsigned>(port.plugged);
    bool started = false;
    counters.device = HasDriver(port, &started) || port.pdo != nullptr;
    counters.started = started;
    counters.power = static_cast<unsigned>(port.power);
    counters.urbs = static_cast<unsigned>(port.urbs);
    counters.urbs_pending = PendingUrbs(port);
    counters.idle_requested = port.idle != nullptr;
    counters.wmi_registered = static_cast<unsigned>(port.wmi);
    counters.open_files = OpenFiles();
    counters.findings = RigFindings();
    counters.serial_count = IoGetConfigurationInformation()->SerialCount;
    return STATUS_SUCCESS;
}

NTSTATUS Idle(Port& port, void*)
{
    return CallIdle(port);
}

struct Handler {
    ULONG code;
    ULONG in; // bytes, at least
    ULONG out;
    NTSTATUS (*routine)(Port& port, void* buffer);
};

constexpr Handler kHandlers[] = {
    {RIG_PLUG, sizeof(RigPlug), 0, Plug},
    {RIG_UNPLUG, sizeof(RigPortRequest), 0, Unplug},
    {RIG_RELEASE, sizeof(RigPortRequest), 0, Release},
    {RIG_FEED, sizeof(RigFeed), 0, Feed},
    {RIG_SEND_PNP, sizeof(RigIrpRequest), sizeof(RigIrpAnswer), SendPnp},
    {RIG_SEND_POWER, sizeof(RigIrpRequest), sizeof(RigIrpAnswer), SendPower},
    {RIG_SEND_WMI, sizeof(RigWmiRequest), sizeof(RigWmiAnswer), SendWmi},
    {RIG_COUNTERS, sizeof(RigPortRequest), sizeof(RigCounters), Counters},
    {RIG_SUSPEND_IDLE, sizeof(RigPortRequest), 0, Idle},
};

NTSTATUS Carry(PIRP irp, ULONG* information)
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    void* buffer = irp->AssociatedIrp.SystemBuffer;
    if (parameters.IoControlCode == RIG_FORGET_FINDINGS) {
        RigForgetFindings();
        return STATUS_SUCCESS;
    }
    if (parameters.IoControlCode == RIG_FINDING) {
        if (parameters.InputBufferLength < sizeof(RigPortRequest) ||
            parameters.OutputBufferLength < sizeof(RigFindingText))
            return STATUS_INVALID_PARAMETER;
        const ULONG number = static_cast<const RigPortRequest*>(buffer)->port;
        auto* text = static_cast<RigFindingText*>(buffer)->text;
        if (RigFinding(number, text, sizeof(RigFindingText)) == 0)
            text[0] = '\0';
        *information = sizeof(RigFindingText);
        return STATUS_SUCCESS;
    }
    for (const Handler& handler : kHandlers) {
        if (handler.code != parameters.IoControlCode)
            continue;
        Port* port = parameters.InputBufferLength < handler.in ? nullptr : PortOf(buffer);
        if (port == nullptr || parameters.OutputBufferLength < handler.out)
            return STATUS_INVALID_PARAMETER;
        *information = handler.out;
        return handler.routine(*port, buffer);
    }
    return STATUS_INVALID_DEVICE_REQUEST;
}

PIRP Next()
{
    KIRQL irql;
    KeAcquireSpinLock(&g_queue.lock, &irql);
    PIRP irp = nullptr;
    if (!IsListEmpty(&g_queue.irps))
        irp = CONTAINING_RECORD(RemoveHeadList(&g_queue.irps), IRP, Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&g_queue.lock, irql);
    return irp;
}

void NTAPI RunControl(PVOID)
{
    for (;;) {
        const PIRP irp = Next();
        if (irp == nullptr) {
            KeWaitForSingleObject(&g_queue.event, Executive, KernelMode, FALSE, nullptr);
            continue;
        }
        ULONG information = 0;
        const NTSTATUS status = Carry(irp, &information);
        Complete(irp, status, NT_SUCCESS(status) ? information : 0);
    }
}

} // namespace

NTSTATUS ControlRequest(PIRP irp)
{
    IoMarkIrpPending(irp);
    KIRQL irql;
    KeAcquireSpinLock(&g_queue.lock, &irql);
    InsertTailList(&g_queue.irps, &irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&g_queue.lock, irql);
    KeSetEvent(&g_queue.event, IO_NO_INCREMENT, FALSE);
    return STATUS_PENDING;
}

NTSTATUS StartControl()
{
    InitializeListHead(&g_queue.irps);
    KeInitializeEvent(&g_queue.event, SynchronizationEvent, FALSE);
    return StartThread(RunControl, nullptr);
}
