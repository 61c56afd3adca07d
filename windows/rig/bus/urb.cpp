// URBs, between the driver under test and the modules.
//
// A URB waits in its port's queue until it ends. The pump takes one into its hand by taking its cancel routine away,
// lets the module answer, and gives the cancel routine back when the module has nothing to say yet. Who has taken the
// cancel routine, and only he, may complete the request.
#include "windows/rig/bus/bus.h"

namespace {

constexpr UCHAR kToHost = 0x80;
constexpr UCHAR kClass = 0x20;
constexpr UCHAR kToInterface = 0x01;
constexpr UCHAR kToEndpoint = 0x02;

// What became of a URB in the pump's hand.
enum class Outcome { Waits, Done };

PURB UrbOf(PIRP irp)
{
    return static_cast<PURB>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument1);
}

// Bytes that have moved, and the round of the pump that has last looked at the request.
ULONG_PTR& Moved(PIRP irp)
{
    return reinterpret_cast<ULONG_PTR&>(irp->Tail.Overlay.DriverContext[0]);
}

ULONG_PTR& Round(PIRP irp)
{
    return reinterpret_cast<ULONG_PTR&>(irp->Tail.Overlay.DriverContext[1]);
}

PIRP IrpOf(PLIST_ENTRY entry)
{
    return CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
}

NTSTATUS StatusOf(USBD_STATUS status)
{
    switch (status) {
    case USBD_STATUS_SUCCESS: return STATUS_SUCCESS;
    case USBD_STATUS_CANCELED: return STATUS_CANCELLED;
    case USBD_STATUS_DEVICE_GONE: return STATUS_DEVICE_NOT_CONNECTED;
    case USBD_STATUS_INVALID_URB_FUNCTION:
    case USBD_STATUS_INVALID_PIPE_HANDLE:
    case USBD_STATUS_INVALID_PARAMETER: return STATUS_INVALID_PARAMETER;
    default: return STATUS_UNSUCCESSFUL;
    }
}

// As the bus's own completions: at DISPATCH_LEVEL.
void EndUrb(PIRP irp, USBD_STATUS status)
{
    UrbOf(irp)->UrbHeader.Status = status;
    const UCHAR before = RigSetIrql(DISPATCH_LEVEL);
    Complete(irp, StatusOf(status));
    RigSetIrql(before);
}

void NTAPI CancelUrb(PDEVICE_OBJECT device, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Port& port = *ExtensionOf(device)->port;
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&port.lock, irql);
    EndUrb(irp, USBD_STATUS_CANCELED);
}

const Pipe* FindPipe(const Port& port, USBD_PIPE_HANDLE handle)
{
    for (const Pipe& pipe : port.pipes) {
        if (&pipe == handle && pipe.endpoint != 0)
            return &pipe;
    }
    return nullptr;
}

// The pipe of a URB that names one; it is at the same place in all of them.
const Pipe* PipeOf(const Port& port, PURB urb)
{
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_RESET_PIPE: return FindPipe(port, urb->UrbPipeRequest.PipeHandle);
    default: return nullptr;
    }
}

struct Setup {
    UCHAR type;
    UCHAR request;
    USHORT value;
    USHORT index;
    USHORT length;
};

Outcome Control(Port& port, const Setup& setup, PVOID data, ULONG& moved, USBD_STATUS& status)
{
    const UCHAR packet[8] = {setup.type,
                             setup.request,
                             static_cast<UCHAR>(setup.value),
                             static_cast<UCHAR>(setup.value >> 8),
                             static_cast<UCHAR>(setup.index),
                             static_cast<UCHAR>(setup.index >> 8),
                             static_cast<UCHAR>(setup.length),
                             static_cast<UCHAR>(setup.length >> 8)};
    unsigned answered = 0;
    const RigHandshake answer = RigModuleControl(port.module, packet, static_cast<UCHAR*>(data), &answered);
    if (answer == RigNak)
        return Outcome::Waits;
    status = USBD_STATUS_SUCCESS;
    if (answer == RigStall)
        status = USBD_STATUS_STALL_PID;
    else if (answered > setup.length)
        status = USBD_STATUS_DATA_OVERRUN;
    moved = (setup.type & kToHost) != 0 ? answered : setup.length;
    return Outcome::Done;
}

Outcome GetDescriptor(Port& port, PURB urb, USBD_STATUS& status)
{
    auto& request = urb->UrbControlDescriptorRequest;
    const Setup setup = {kToHost, USB_REQUEST_GET_DESCRIPTOR,
                         static_cast<USHORT>(request.DescriptorType << 8 | request.Index), request.LanguageId,
                         static_cast<USHORT>(request.TransferBufferLength)};
    return Control(port, setup, request.TransferBuffer, request.TransferBufferLength, status);
}

Outcome ClassInterface(Port& port, PURB urb, USBD_STATUS& status)
{
    auto& request = urb->UrbControlVendorClassRequest;
    const bool in = (request.TransferFlags & USBD_TRANSFER_DIRECTION_IN) != 0;
    const Setup setup = {static_cast<UCHAR>((in ? kToHost : 0) | kClass | kToInterface), request.Request,
                         request.Value, request.Index, static_cast<USHORT>(request.TransferBufferLength)};
    return Control(port, setup, request.TransferBuffer, request.TransferBufferLength, status);
}

// The handles of the pipes of an interface; the rest of it USBD_CreateConfigurationRequestEx has filled.
bool OpenPipes(Port& port, USBD_INTERFACE_INFORMATION& interface_information)
{
    for (Pipe& pipe : port.pipes) {
        if (pipe.interface_number == interface_information.InterfaceNumber)
            pipe.endpoint = 0;
    }
    // Walks the descriptor to the interface, then over its endpoints.
    ULONG opened = 0;
    bool inside = false;
    for (ULONG at = 0; at + 2 < sizeof port.descriptor && port.descriptor[at] >= 2;
         at += port.descriptor[at]) {
        const UCHAR* bytes = port.descriptor + at;
        if (bytes[1] == USB_INTERFACE_DESCRIPTOR_TYPE)
            inside = bytes[2] == interface_information.InterfaceNumber &&
                     bytes[3] == interface_information.AlternateSetting;
        if (!inside || bytes[1] != USB_ENDPOINT_DESCRIPTOR_TYPE ||
            opened == interface_information.NumberOfPipes)
            continue;
        const auto* endpoint = reinterpret_cast<const USB_ENDPOINT_DESCRIPTOR*>(bytes);
        for (Pipe& pipe : port.pipes) {
            if (pipe.endpoint != 0)
                continue;
            pipe = {endpoint->bEndpointAddress, interface_information.InterfaceNumber,
                    endpoint->wMaxPacketSize};
            USBD_PIPE_INFORMATION& information = interface_information.Pipes[opened++];
            information.PipeHandle = &pipe;
            information.EndpointAddress = endpoint->bEndpointAddress;
            information.PipeType = static_cast<USBD_PIPE_TYPE>(endpoint->bmAttributes & 3);
            information.MaximumPacketSize = endpoint->wMaxPacketSize;
            information.Interval = endpoint->bInterval;
            break;
        }
    }
    interface_information.InterfaceHandle = &port;
    return opened == interface_information.NumberOfPipes;
}

// The configuration is set once; its interfaces may be selected one after the other, as those of the functions of
// one device are.
Outcome SelectConfiguration(Port& port, PURB urb, USBD_STATUS& status)
{
    auto& select = urb->UrbSelectConfiguration;
    PUSB_CONFIGURATION_DESCRIPTOR descriptor = select.ConfigurationDescriptor;
    const UCHAR value = descriptor == nullptr ? UCHAR{0} : descriptor->bConfigurationValue;
    ULONG moved = 0;
    if (value != port.configuration || value == 0) {
        const Setup setup = {0, USB_REQUEST_SET_CONFIGURATION, value, 0, 0};
        if (Control(port, setup, nullptr, moved, status) == Outcome::Waits)
            return Outcome::Waits;
        if (status != USBD_STATUS_SUCCESS)
            return Outcome::Done;
        RtlZeroMemory(port.pipes, sizeof port.pipes);
        port.configuration = value;
    }
    select.ConfigurationHandle = value == 0 ? nullptr : &port;
    if (descriptor == nullptr)
        return Outcome::Done;
    if (descriptor->wTotalLength > sizeof port.descriptor) {
        status = USBD_STATUS_INVALID_PARAMETER;
        return Outcome::Done;
    }
    RtlZeroMemory(port.descriptor, sizeof port.descriptor);
    RtlCopyMemory(port.descriptor, descriptor, descriptor->wTotalLength);
    auto* at = reinterpret_cast<UCHAR*>(&select.Interface);
    const UCHAR* end = reinterpret_cast<UCHAR*>(urb) + select.Hdr.Length;
    while (at + sizeof(USBD_INTERFACE_INFORMATION) - sizeof(USBD_PIPE_INFORMATION) <= end) {
        auto& information = *reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(at);
        if (information.Length == 0 || at + information.Length > end || !OpenPipes(port, information)) {
            status = USBD_STATUS_INVALID_PARAMETER;
            return Outcome::Done;
        }
        at += information.Length;
    }
    status = USBD_STATUS_SUCCESS;
    return Outcome::Done;
}

Outcome TransferIn(Port& port, PIRP irp, const Pipe& pipe, USBD_STATUS& status)
{
    auto& transfer = UrbOf(irp)->UrbBulkOrInterruptTransfer;
    const ULONG length = transfer.TransferBufferLength;
    status = USBD_STATUS_SUCCESS;
    for (bool last = false; !last && Moved(irp) < length;) {
        unsigned got = 0;
        const auto room = static_cast<ULONG>(length - Moved(irp));
        const RigHandshake answer =
            RigModuleIn(port.module, pipe.endpoint, static_cast<UCHAR*>(transfer.TransferBuffer) + Moved(irp),
                        std::min(room, ULONG{pipe.max_packet}), &got);
        if (answer == RigNak)
            return Outcome::Waits;
        if (answer == RigStall)
            status = USBD_STATUS_STALL_PID;
        else if (got > room || got > pipe.max_packet)
            status = USBD_STATUS_BUFFER_OVERRUN;
        else
            Moved(irp) += got;
        last = got < pipe.max_packet || status != USBD_STATUS_SUCCESS;
    }
    transfer.TransferBufferLength = static_cast<ULONG>(Moved(irp));
    return Outcome::Done;
}

Outcome TransferOut(Port& port, PIRP irp, const Pipe& pipe, USBD_STATUS& status)
{
    auto& transfer = UrbOf(irp)->UrbBulkOrInterruptTransfer;
    status = USBD_STATUS_SUCCESS;
    do {
        const ULONG packet =
            std::min(transfer.TransferBufferLength - static_cast<ULONG>(Moved(irp)), ULONG{pipe.max_packet});
        const RigHandshake answer =
            RigModuleOut(port.module, pipe.endpoint,
                         static_cast<const UCHAR*>(transfer.TransferBuffer) + Moved(irp), packet);
        if (answer == RigNak)
            return Outcome::Waits;
        if (answer == RigStall) {
            status = USBD_STATUS_STALL_PID;
            return Outcome::Done;
        }
        Moved(irp) += packet;
    } while (Moved(irp) < transfer.TransferBufferLength);
    return Outcome::Done;
}

// The first request of the queue that the pump has not looked at in `round`, or that is on `endpoint` if that is not 0;
// it is in the caller's hand then.
PIRP TakeUrb(Port& port, ULONG_PTR round, UCHAR endpoint = 0)
{
    PIRP found = nullptr;
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    for (PLIST_ENTRY entry = port.queue.Flink; entry != &port.queue && found == nullptr;
         entry = entry->Flink) {
        const PIRP irp = IrpOf(entry);
        const Pipe* pipe = PipeOf(port, UrbOf(irp));
        const bool wanted =
            endpoint != 0 ? pipe != nullptr && pipe->endpoint == endpoint : Round(irp) != round;
        if (wanted && IoSetCancelRoutine(irp, nullptr) != nullptr)
            found = irp;
    }
    if (found != nullptr)
        Round(found) = round;
    KeReleaseSpinLock(&port.lock, irql);
    return found;
}

void EndTaken(Port& port, PIRP irp, USBD_STATUS status)
{
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&port.lock, irql);
    EndUrb(irp, status);
}

// Gives the cancel routine back. A request that was cancelled in the pump's hand ends here.
void PutBack(Port& port, PIRP irp)
{
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    IoSetCancelRoutine(irp, CancelUrb);
    const bool cancelled = irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr;
    KeReleaseSpinLock(&port.lock, irql);
    if (cancelled)
        EndTaken(port, irp, USBD_STATUS_CANCELED);
}

Outcome PipeRequest(Port& port, PIRP irp, ULONG_PTR round, USBD_STATUS& status)
{
    const PURB urb = UrbOf(irp);
    const Pipe* pipe = PipeOf(port, urb);
    if (pipe == nullptr) {
        status = USBD_STATUS_INVALID_PIPE_HANDLE;
        return Outcome::Done;
    }
    ULONG moved = 0;
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_ABORT_PIPE:
        while (const PIRP victim = TakeUrb(port, round, pipe->endpoint))
            EndTaken(port, victim, USBD_STATUS_CANCELED);
        status = USBD_STATUS_SUCCESS;
        return Outcome::Done;
    case URB_FUNCTION_RESET_PIPE:
        return Control(
            port, {kToEndpoint, USB_REQUEST_CLEAR_FEATURE, USB_FEATURE_ENDPOINT_STALL, pipe->endpoint, 0},
            nullptr, moved, status);
    default:
        return USB_ENDPOINT_DIRECTION_IN(pipe->endpoint) ? TransferIn(port, irp, *pipe, status)
                                                         : TransferOut(port, irp, *pipe, status);
    }
}

Outcome Run(Port& port, PIRP irp, ULONG_PTR round, USBD_STATUS& status)
{
    const PURB urb = UrbOf(irp);
    switch (urb->UrbHeader.Function) {
    case URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE: return GetDescriptor(port, urb, status);
    case URB_FUNCTION_SELECT_CONFIGURATION: return SelectConfiguration(port, urb, status);
    case URB_FUNCTION_CLASS_INTERFACE: return ClassInterface(port, urb, status);
    case URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER:
    case URB_FUNCTION_ABORT_PIPE:
    case URB_FUNCTION_RESET_PIPE: return PipeRequest(port, irp, round, status);
    default:
        RigReport("URB function 0x%x is none that the bus knows", urb->UrbHeader.Function);
        status = USBD_STATUS_INVALID_URB_FUNCTION;
        return Outcome::Done;
    }
}

void RunUrbs(Port& port)
{
    static constinit ULONG_PTR last_round = 0;
    const ULONG_PTR round = ++last_round;
    while (const PIRP irp = TakeUrb(port, round)) {
        USBD_STATUS status = USBD_STATUS_SUCCESS;
        if (Run(port, irp, round, status) == Outcome::Done)
            EndTaken(port, irp, status);
        else
            PutBack(port, irp);
    }
}

// One round with the module in `port`. Returns when the next one is due at the latest.
LONGLONG PumpPort(Port& port)
{
    ExAcquireFastMutex(&port.module_mutex);
    LONGLONG next = RigNow() + 100'000'000;
    if (port.module != nullptr) {
        if (port.module_power != port.power) {
            port.module_power = port.power;
            RigModuleSuspend(port.module, port.power != PowerDeviceD0);
        }
        RigModuleAdvance(port.module, RigNow());
        RunUrbs(port);
        next = RigModuleAdvance(port.module, RigNow());
    }
    ExReleaseFastMutex(&port.module_mutex);
    if (port.plugged == 0)
        FailUrbs(port);
    return next;
}

} // namespace

NTSTATUS SubmitUrb(Port& port, PIRP irp)
{
    InterlockedIncrement(&port.urbs);
    if (port.plugged == 0) {
        UrbOf(irp)->UrbHeader.Status = USBD_STATUS_DEVICE_GONE;
        return Complete(irp, STATUS_DEVICE_NOT_CONNECTED);
    }
    if (port.power != PowerDeviceD0 || port.started == 0) {
        RigReport("URB function 0x%x while the device is %s", UrbOf(irp)->UrbHeader.Function,
                  port.started == 0 ? "not started" : "not in D0");
        UrbOf(irp)->UrbHeader.Status = USBD_STATUS_INTERNAL_HC_ERROR;
        return Complete(irp, STATUS_UNSUCCESSFUL);
    }
    IoMarkIrpPending(irp);
    Moved(irp) = 0;
    Round(irp) = 0;
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    InsertTailList(&port.queue, &irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&port.lock, irql);
    PutBack(port, irp);
    KeSetEvent(&g_bus.pump, IO_NO_INCREMENT, FALSE);
    return STATUS_PENDING;
}

void FailUrbs(Port& port)
{
    while (const PIRP irp = TakeUrb(port, ~ULONG_PTR{0}))
        EndTaken(port, irp, port.plugged == 0 ? USBD_STATUS_DEVICE_GONE : USBD_STATUS_CANCELED);
}

ULONG PendingUrbs(Port& port)
{
    ULONG pending = 0;
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    for (PLIST_ENTRY entry = port.queue.Flink; entry != &port.queue; entry = entry->Flink)
        ++pending;
    KeReleaseSpinLock(&port.lock, irql);
    return pending;
}

void NTAPI Pump(PVOID)
{
    for (;;) {
        LARGE_INTEGER timeout;
        timeout.QuadPart = RigNow() + 100'000'000;
        for (Port& port : g_bus.ports)
            timeout.QuadPart = std::min(timeout.QuadPart, PumpPort(port));
        // A module that is to be told the time at once is told it in a millisecond.
        timeout.QuadPart = std::max(timeout.QuadPart, RigNow() + 10'000);
        KeWaitForSingleObject(&g_bus.pump, Executive, KernelMode, FALSE, &timeout);
    }
}
