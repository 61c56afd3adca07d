#include "navox_usb.h"

#include "navox_utils.h"

namespace {

constexpr ULONG kDescriptorUrbBytes = sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST);
constexpr ULONG kPipeUrbBytes = sizeof(struct _URB_PIPE_REQUEST);
static_assert(kDescriptorUrbBytes == 136 && kPipeUrbBytes == 40);
static_assert(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER) == 128);
static_assert(sizeof(USBD_INTERFACE_INFORMATION) == 48 && sizeof(USBD_PIPE_INFORMATION) == 24);

constexpr ULONG kUnlimitedTransfer = 0xFFFFFFFF;
constexpr LONGLONG kDrainTimeout = -300'000; // 30 ms
constexpr UCHAR kClassCommunications = 0x02;
constexpr UCHAR kClassData = 0x0A;

// Who is through with a timed request: the waiter that cancels it or the bus that completes it. Whichever
// comes second finishes it.
//
//     waiter:      0 --timed out--> 1 --IoCancelIrp--> 2     found 3 at the end: completes the request itself
//     completion:  any --> 3                                 found 1: leaves the request to the waiter
enum HandShake : LONG { HandShakeNone, CancelStarted, CancelDone, Completed };

NTSTATUS NTAPI NoteCompleted(PDEVICE_OBJECT, PIRP, PVOID context)
{
    if (InterlockedExchange(static_cast<PLONG>(context), Completed) == CancelStarted)
        return STATUS_MORE_PROCESSING_REQUIRED;
    return STATUS_SUCCESS;
}

// The wait has run out. Cancels the request, unless it completes by itself, and waits for it.
void CancelTimedRequest(PIRP irp, LONG* handShake, PKEVENT done)
{
    if (InterlockedExchange(handShake, CancelStarted) == HandShakeNone) {
        IoCancelIrp(irp);
        if (InterlockedExchange(handShake, CancelDone) == Completed)
            IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    KeWaitForSingleObject(done, Executive, KernelMode, FALSE, nullptr);
}

// A request that submits the URB and signals the event when it is through; the system frees it then. Null
// when memory is short.
PIRP BuildUrbRequest(DEVICE_EXTENSION* extension, PURB urb, PKEVENT done, PIO_STATUS_BLOCK ioStatus)
{
    const PIRP irp =
        IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, extension->LowerDeviceObject, nullptr, 0,
                                      nullptr, 0, TRUE, done, ioStatus);
    if (irp != nullptr)
        PrepareUrbIrp(irp, urb);
    return irp;
}

NTSTATUS SubmitCounted(DEVICE_EXTENSION* extension, PURB urb, PLARGE_INTEGER timeout)
{
    IO_STATUS_BLOCK ioStatus = {};
    ioStatus.Status = STATUS_IO_TIMEOUT;
    LONG handShake = HandShakeNone;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    const PIRP irp = BuildUrbRequest(extension, urb, &done, &ioStatus);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    IoSetCompletionRoutine(irp, NoteCompleted, &handShake, TRUE, TRUE, TRUE);

    const NTSTATUS status = IoCallDriver(extension->LowerDeviceObject, irp);
    if (status != STATUS_PENDING) {
        if (!NT_SUCCESS(status))
            TRACE(TRACE_USB, LEVEL_WARNING, "URB function 0x%x: 0x%x", urb->UrbHeader.Function, status);
        return status;
    }
    if (KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, timeout) == STATUS_TIMEOUT) {
        CancelTimedRequest(irp, &handShake, &done);
        return STATUS_IO_TIMEOUT;
    }
    return ioStatus.Status;
}

void BuildDescriptorUrb(PURB urb, UCHAR type, PVOID buffer, ULONG length)
{
    struct _URB_CONTROL_DESCRIPTOR_REQUEST& request = urb->UrbControlDescriptorRequest;
    RtlZeroMemory(&request, sizeof(request));
    request.Hdr.Length = sizeof(request);
    request.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    request.TransferBufferLength = length;
    request.TransferBuffer = buffer;
    request.DescriptorType = type;
}

// Makes the descriptor end behind the last entry that is whole, whatever its total length says. `received`
// bytes came from the device.
void TrimConfiguration(PUSB_CONFIGURATION_DESCRIPTOR configuration, ULONG received)
{
    const auto* bytes = reinterpret_cast<const UCHAR*>(configuration);
    ULONG end = 0;
    while (end + sizeof(USB_COMMON_DESCRIPTOR) <= received) {
        const UCHAR length = bytes[end];
        const UCHAR type = bytes[end + 1];
        const ULONG least = type == USB_INTERFACE_DESCRIPTOR_TYPE  ? sizeof(USB_INTERFACE_DESCRIPTOR)
                            : type == USB_ENDPOINT_DESCRIPTOR_TYPE ? sizeof(USB_ENDPOINT_DESCRIPTOR)
                                                                   : sizeof(USB_COMMON_DESCRIPTOR);
        if (length < least || end + length > received)
            break;
        end += length;
    }
    if (configuration->wTotalLength > end)
        configuration->wTotalLength = static_cast<USHORT>(end);
}

// Owns the URB that the USB stack builds to select one interface.
class SelectionUrb {
  public:
    // Finds the interface by its class and builds the URB. Null interface: not found, or memory is short.
    NAVOX_PAGED SelectionUrb(PUSB_CONFIGURATION_DESCRIPTOR configuration, UCHAR interfaceClass,
                             UCHAR subClass, UCHAR protocol)
    {
        PAGED_CODE();
        PUSB_INTERFACE_DESCRIPTOR descriptor = USBD_ParseConfigurationDescriptorEx(
            configuration, configuration, -1, 0, interfaceClass, subClass, protocol);
        if (descriptor == nullptr)
            return;
        USBD_INTERFACE_LIST_ENTRY list[2] = {{descriptor, nullptr}, {nullptr, nullptr}};
        urb_ = USBD_CreateConfigurationRequestEx(configuration, list);
        if (urb_ != nullptr)
            interface_ = list[0].Interface;
    }
    ~SelectionUrb()
    {
        if (urb_ != nullptr)
            ExFreePool(urb_);
    }
    SelectionUrb(const SelectionUrb&) = delete;
    SelectionUrb& operator=(const SelectionUrb&) = delete;

    PUSBD_INTERFACE_INFORMATION Interface() const { return interface_; }

    // Selects, if the interface has exactly as many pipes.
    NAVOX_PAGED NTSTATUS Select(DEVICE_EXTENSION* extension, ULONG pipes)
    {
        PAGED_CODE();
        // why: a missing interface counts as a lack of memory.
        if (interface_ == nullptr)
            return STATUS_INSUFFICIENT_RESOURCES;
        if (interface_->NumberOfPipes != pipes)
            return STATUS_DEVICE_CONFIGURATION_ERROR;
        for (ULONG i = 0; i < pipes; ++i)
            interface_->Pipes[i].MaximumTransferSize = kUnlimitedTransfer;
        return SubmitUrb(extension, urb_);
    }

  private:
    PURB urb_ = nullptr;
    PUSBD_INTERFACE_INFORMATION interface_ = nullptr;
};

void TracePipe(const char* name, const USBD_PIPE_INFORMATION& pipe)
{
    TRACE(TRACE_USB, LEVEL_INFORMATION, "%s pipe: endpoint 0x%x, %u bytes", name, pipe.EndpointAddress,
          pipe.MaximumPacketSize);
}

NAVOX_PAGED NTSTATUS SelectDataInterface(DEVICE_EXTENSION* extension,
                                         PUSB_CONFIGURATION_DESCRIPTOR configuration)
{
    PAGED_CODE();
    SelectionUrb selection(configuration, kClassData, 0, 0);
    const NTSTATUS status = selection.Select(extension, 2);
    if (!NT_SUCCESS(status))
        return status;
    const PUSBD_INTERFACE_INFORMATION data = selection.Interface();
    const USBD_PIPE_INFORMATION& first = data->Pipes[0];
    const USBD_PIPE_INFORMATION& second = data->Pipes[1];
    if (first.PipeType != UsbdPipeTypeBulk || second.PipeType != UsbdPipeTypeBulk ||
        USB_ENDPOINT_DIRECTION_IN(first.EndpointAddress) == USB_ENDPOINT_DIRECTION_IN(second.EndpointAddress))
        return STATUS_DEVICE_CONFIGURATION_ERROR;

    const bool firstIsIn = USB_ENDPOINT_DIRECTION_IN(first.EndpointAddress) != 0;
    extension->DataInterface = *data;
    extension->BulkInPipe = firstIsIn ? first : second;
    extension->BulkOutPipe = firstIsIn ? second : first;
    TracePipe("bulk-in", extension->BulkInPipe);
    TracePipe("bulk-out", extension->BulkOutPipe);
    return STATUS_SUCCESS;
}

NAVOX_PAGED NTSTATUS SelectCommunicationInterface(DEVICE_EXTENSION* extension,
                                                  PUSB_CONFIGURATION_DESCRIPTOR configuration)
{
    PAGED_CODE();
    constexpr UCHAR abstractControlModel = 2;
    constexpr UCHAR atCommands = 1;
    SelectionUrb selection(configuration, kClassCommunications, abstractControlModel, atCommands);
    const NTSTATUS status = selection.Select(extension, 1);
    if (!NT_SUCCESS(status))
        return status;
    const USBD_PIPE_INFORMATION& pipe = selection.Interface()->Pipes[0];
    if (pipe.PipeType != UsbdPipeTypeInterrupt || !USB_ENDPOINT_DIRECTION_IN(pipe.EndpointAddress))
        return STATUS_DEVICE_CONFIGURATION_ERROR;
    extension->CommunicationInterface = *selection.Interface();
    extension->InterruptPipe = pipe;
    TracePipe("interrupt", extension->InterruptPipe);
    return STATUS_SUCCESS;
}

NAVOX_PAGED NTSTATUS SelectConfiguration(DEVICE_EXTENSION* extension,
                                         PUSB_CONFIGURATION_DESCRIPTOR configuration)
{
    PAGED_CODE();
    const NTSTATUS status = SelectDataInterface(extension, configuration);
    return NT_SUCCESS(status) ? SelectCommunicationInterface(extension, configuration) : status;
}

NAVOX_PAGED NTSTATUS ReadConfigurationDescriptor(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    PoolPointer<URB, kTagDescriptorUrb> urb;
    PoolPointer<USB_CONFIGURATION_DESCRIPTOR, kTagDescriptor> configuration;
    if (!urb.Allocate(NonPagedPool, kDescriptorUrbBytes) || !configuration.Allocate(NonPagedPool))
        return STATUS_INSUFFICIENT_RESOURCES;
    BuildDescriptorUrb(urb.get(), USB_CONFIGURATION_DESCRIPTOR_TYPE, configuration.get(),
                       sizeof(USB_CONFIGURATION_DESCRIPTOR));
    NTSTATUS status = SubmitUrb(extension, urb.get());
    if (!NT_SUCCESS(status))
        return status;

    // A device that claims less than the header gets the header's room all the same: it is read below.
    const USHORT total = configuration->wTotalLength;
    const SIZE_T room =
        total > sizeof(USB_CONFIGURATION_DESCRIPTOR) ? total : sizeof(USB_CONFIGURATION_DESCRIPTOR);
    if (!configuration.Allocate(NonPagedPool, room))
        return STATUS_INSUFFICIENT_RESOURCES;
    BuildDescriptorUrb(urb.get(), USB_CONFIGURATION_DESCRIPTOR_TYPE, configuration.get(), total);
    status = SubmitUrb(extension, urb.get());
    if (!NT_SUCCESS(status))
        return status;
    const ULONG received = urb->UrbControlDescriptorRequest.TransferBufferLength;
    TrimConfiguration(configuration.get(), received < total ? received : total);

    extension->ConfigurationDescriptor = configuration.get();
    extension->RemoteWakeupCapable = (configuration->bmAttributes & USB_CONFIG_REMOTE_WAKEUP) != 0;
    return SelectConfiguration(extension, configuration.get());
}

bool BuildPipeUrb(PoolPointer<URB, kTagPipeUrb>* urb, USHORT function, USBD_PIPE_HANDLE pipe)
{
    if (!urb->Allocate(NonPagedPool, kPipeUrbBytes))
        return false;
    (*urb)->UrbHeader.Length = kPipeUrbBytes;
    (*urb)->UrbHeader.Function = function;
    (*urb)->UrbPipeRequest.PipeHandle = pipe;
    return true;
}

NTSTATUS ExchangeCounted(DEVICE_EXTENSION* extension, PURB urb, PLARGE_INTEGER abortAfter)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK ioStatus = {};
    const PIRP irp = BuildUrbRequest(extension, urb, &done, &ioStatus);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = IoCallDriver(extension->LowerDeviceObject, irp);
    if (status != STATUS_PENDING)
        return status;
    if (KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, abortAfter) == STATUS_TIMEOUT) {
        (void)AbortBulkInPipe(extension);
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    return ioStatus.Status;
}

} // namespace

void BuildTransferUrb(PURB urb, const USBD_PIPE_INFORMATION& pipe, PVOID buffer, ULONG length)
{
    struct _URB_BULK_OR_INTERRUPT_TRANSFER& transfer = urb->UrbBulkOrInterruptTransfer;
    RtlZeroMemory(&transfer, sizeof(transfer));
    transfer.Hdr.Length = sizeof(transfer);
    transfer.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    transfer.PipeHandle = pipe.PipeHandle;
    transfer.TransferFlags = USBD_SHORT_TRANSFER_OK;
    transfer.TransferBufferLength = length;
    transfer.TransferBuffer = buffer;
}

void PrepareUrbIrp(PIRP irp, PURB urb)
{
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    next->Parameters.Others.Argument1 = urb;
}

NTSTATUS SubmitUrb(DEVICE_EXTENSION* extension, PURB urb, PLARGE_INTEGER timeout)
{
    if (!IncrementIoCountUnlessRemoved(extension))
        return STATUS_DELETE_PENDING;
    const NTSTATUS status = SubmitCounted(extension, urb, timeout);
    DecrementIoCount(extension);
    return status;
}

NTSTATUS SubmitUrbOrAbort(DEVICE_EXTENSION* extension, PURB urb, PLARGE_INTEGER abortAfter)
{
    if (!IncrementIoCountUnlessRemoved(extension))
        return STATUS_DELETE_PENDING;
    const NTSTATUS status = ExchangeCounted(extension, urb, abortAfter);
    DecrementIoCount(extension);
    return status;
}

NAVOX_PAGED NTSTATUS ConfigureDevice(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    PoolPointer<URB, kTagDescriptorUrb> urb;
    PoolPointer<USB_DEVICE_DESCRIPTOR, kTagDescriptor> device;
    if (!urb.Allocate(NonPagedPool, kDescriptorUrbBytes) || !device.Allocate(NonPagedPool))
        return STATUS_INSUFFICIENT_RESOURCES;
    BuildDescriptorUrb(urb.get(), USB_DEVICE_DESCRIPTOR_TYPE, device.get(), sizeof(USB_DEVICE_DESCRIPTOR));
    const NTSTATUS status = SubmitUrb(extension, urb.get());
    if (!NT_SUCCESS(status))
        return status;
    extension->DeviceDescriptor = device.get();
    TRACE(TRACE_USB, LEVEL_INFORMATION, "device %04x:%04x, release %04x", device->idVendor, device->idProduct,
          device->bcdDevice);
    return ReadConfigurationDescriptor(extension);
}

NTSTATUS ResetPipe(PDEVICE_OBJECT device, const USBD_PIPE_INFORMATION& pipe)
{
    PoolPointer<URB, kTagPipeUrb> urb;
    if (!BuildPipeUrb(&urb, URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, pipe.PipeHandle))
        return STATUS_INSUFFICIENT_RESOURCES;
    const NTSTATUS status = SubmitUrb(GetExtension(device), urb.get());
    return NT_SUCCESS(status) ? STATUS_SUCCESS : status;
}

NTSTATUS AbortBulkInPipe(DEVICE_EXTENSION* extension)
{
    PoolPointer<URB, kTagPipeUrb> urb;
    if (!BuildPipeUrb(&urb, URB_FUNCTION_ABORT_PIPE, extension->BulkInPipe.PipeHandle))
        return STATUS_INSUFFICIENT_RESOURCES;
    // The exchange that is aborted is counted, which keeps the lower device: the abort goes down even when
    // removal has begun, because removal waits for that exchange.
    IncrementIoCount(extension);
    const NTSTATUS status = SubmitCounted(extension, urb.get(), nullptr);
    DecrementIoCount(extension);
    return status;
}

NTSTATUS DrainPipe(DEVICE_EXTENSION* extension, const USBD_PIPE_INFORMATION& pipe)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = kDrainTimeout;
    BuildTransferUrb(extension->AuxUrb, pipe, extension->AuxBuffer, extension->AuxBufferSize);
    const NTSTATUS status = SubmitUrb(extension, extension->AuxUrb, &timeout);
    if (NT_SUCCESS(status))
        TRACE(TRACE_USB, LEVEL_INFORMATION, "drained %u bytes",
              extension->AuxUrb->UrbBulkOrInterruptTransfer.TransferBufferLength);
    else
        TRACE(TRACE_USB, LEVEL_INFORMATION, "nothing drained: 0x%x", status);
    return status;
}
