#include "usb_bench.h"

#include <cstring>

namespace host_test {
namespace {

NTSTATUS NTAPI Landed(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* flight = static_cast<UsbBench::Flight*>(context);
    flight->completed_at = KeGetCurrentIrql();
    flight->block = irp->IoStatus;
    KeSetEvent(&flight->done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

VOID NTAPI PowerDone(PDEVICE_OBJECT, UCHAR, POWER_STATE, PVOID context, PIO_STATUS_BLOCK)
{
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
}

std::unique_ptr<URB> EmptyUrb()
{
    auto urb = std::make_unique<URB>();
    std::memset(static_cast<void*>(urb.get()), 0, sizeof(URB));
    return urb;
}

} // namespace

UsbBench::UsbBench(host::KernelOptions options, host::UsbPortOptions port_options)
    : Bench(std::move(options), false)
{
    host::PnpManager::Current().SetFunctionDriver("scripted");
    port = Plug(device, std::move(port_options));
}

UsbBench::~UsbBench()
{
    for (const host::UsbPortPtr& plugged : host::UsbBus::Current().Ports())
        Unplug(plugged);
}

void UsbBench::Unplug(const host::UsbPortPtr& which)
{
    host::UsbBus::Current().Unplug(which);
    host::PnpManager::Current().Settle();
}

host::UsbPortPtr UsbBench::Plug(std::shared_ptr<module::Device> another, host::UsbPortOptions options)
{
    host::UsbPortPtr plugged = host::UsbBus::Current().Plug(std::move(another), std::move(options));
    host::PnpManager::Current().Settle();
    return plugged;
}

host::PnpNodePtr UsbBench::Node()
{
    const auto nodes = host::PnpManager::Current().Nodes();
    return nodes.empty() ? nullptr : nodes.front();
}

UsbBench::FlightPtr UsbBench::Submit(std::unique_ptr<URB> urb, std::vector<UCHAR> buffer)
{
    auto flight = std::make_shared<Flight>();
    KeInitializeEvent(&flight->done, NotificationEvent, FALSE);
    flight->urb = std::move(urb);
    flight->buffer = std::move(buffer);
    flight->irp = IoAllocateIrp(Lower()->StackSize, FALSE);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(flight->irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    next->Parameters.Others.Argument1 = flight->urb.get();
    IoSetCompletionRoutine(flight->irp, Landed, flight.get(), TRUE, TRUE, TRUE);
    flight->returned = IoCallDriver(Lower(), flight->irp);
    return flight;
}

UsbBench::Sent UsbBench::Land(const FlightPtr& flight)
{
    KeWaitForSingleObject(&flight->done, Executive, KernelMode, FALSE, nullptr);
    Sent sent;
    sent.status = flight->block.Status;
    sent.usbd = flight->urb->UrbHeader.Status;
    sent.length = flight->urb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    sent.data = flight->buffer;
    IoFreeIrp(flight->irp);
    flight->irp = nullptr;
    return sent;
}

std::unique_ptr<URB> UsbBench::TransferUrb(USBD_PIPE_HANDLE pipe, std::vector<UCHAR>& buffer, ULONG flags)
{
    auto urb = EmptyUrb();
    UsbBuildInterruptOrBulkTransferRequest(urb.get(), sizeof(_URB_BULK_OR_INTERRUPT_TRANSFER), pipe,
                                           buffer.data(), nullptr, static_cast<ULONG>(buffer.size()), flags,
                                           nullptr);
    return urb;
}

UsbBench::FlightPtr UsbBench::StartIn(std::size_t length, ULONG flags)
{
    std::vector<UCHAR> buffer(length, 0xEE);
    auto urb = TransferUrb(bulk_in, buffer, flags);
    return Submit(std::move(urb), std::move(buffer));
}

UsbBench::FlightPtr UsbBench::StartOut(std::string_view data)
{
    std::vector<UCHAR> buffer(data.begin(), data.end());
    auto urb = TransferUrb(bulk_out, buffer, 0);
    return Submit(std::move(urb), std::move(buffer));
}

std::unique_ptr<URB> UsbBench::PipeUrb(USHORT function, USBD_PIPE_HANDLE pipe)
{
    auto urb = EmptyUrb();
    urb->UrbPipeRequest.Hdr.Length = sizeof(_URB_PIPE_REQUEST);
    urb->UrbPipeRequest.Hdr.Function = function;
    urb->UrbPipeRequest.PipeHandle = pipe;
    return urb;
}

void UsbBench::Configure()
{
    std::vector<UCHAR> descriptor = FakeDevice::ConfigurationDescriptor();
    auto* configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(descriptor.data());
    auto* data = USBD_ParseConfigurationDescriptorEx(configuration, configuration, 1, 0, -1, -1, -1);
    USBD_INTERFACE_LIST_ENTRY list[] = {{data, nullptr}, {nullptr, nullptr}};
    PURB urb = USBD_CreateConfigurationRequestEx(configuration, list);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IO_STATUS_BLOCK block{};
    PIRP irp = IoBuildDeviceIoControlRequest(IOCTL_INTERNAL_USB_SUBMIT_URB, Lower(), nullptr, 0, nullptr, 0,
                                             TRUE, &event, &block);
    IoGetNextIrpStackLocation(irp)->Parameters.Others.Argument1 = urb;
    if (IoCallDriver(Lower(), irp) == STATUS_PENDING)
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    EXPECT_EQ(block.Status, STATUS_SUCCESS);
    ASSERT_EQ(list[0].Interface->NumberOfPipes, 2U);
    bulk_out = list[0].Interface->Pipes[0].PipeHandle;
    bulk_in = list[0].Interface->Pipes[1].PipeHandle;
    ExFreePool(urb);
}

NTSTATUS UsbBench::RequestPower(DEVICE_POWER_STATE state)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    POWER_STATE power{};
    power.DeviceState = state;
    const NTSTATUS status =
        PoRequestPowerIrp(Node()->pdo, IRP_MN_SET_POWER, power, PowerDone, &done, nullptr);
    if (status == STATUS_PENDING)
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return status;
}

} // namespace host_test
