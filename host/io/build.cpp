// Requests that the I/O manager builds: for drivers, and for itself.
#include "io/buffered.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "io/names.h"
#include "verifier/irp_rules.h"

namespace host {
namespace {

// IoBuildDeviceIoControlRequest: reports to an event and a status block of the driver.
class BuiltRequest : public IopRequest {
  public:
    BuiltRequest(PIO_STATUS_BLOCK status, std::size_t capacity) : status_(status), capacity_(capacity) {}

    bool Completed(PIRP irp) override
    {
        IopUnbufferRequest(irp, capacity_);
        *irp->UserIosb = irp->IoStatus;
        if (irp->UserEvent != nullptr)
            KeSetEvent(irp->UserEvent, EVENT_INCREMENT, FALSE);
        return true;
    }

    const void* ReportsTo() const override { return status_; }
    std::optional<std::size_t> Capacity() const override { return capacity_; }

  private:
    PIO_STATUS_BLOCK status_;
    std::size_t capacity_;
};

} // namespace

IO_STATUS_BLOCK IopSendAndWait(PDEVICE_OBJECT device, UCHAR major, UCHAR minor, NTSTATUS initial_status,
                               const std::function<void(PIRP, PIO_STACK_LOCATION)>& prepare)
{
    auto request = std::make_shared<IopWaitedRequest>();
    PIRP irp = IopAllocateIrp(device->StackSize, IrpOrigin::System, request, nullptr);
    if (irp == nullptr)
        return {{STATUS_INSUFFICIENT_RESOURCES}, 0};
    irp->IoStatus.Status = initial_status;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = major;
    location->MinorFunction = minor;
    if (prepare)
        prepare(irp, location);
    Kernel::Current().Log().AsyncBegin("irp", IopMajorName(major), irp, IopMinorName(major, minor));
    const NTSTATUS status = IopCallDriver(device, irp, nullptr);
    if (status == STATUS_PENDING)
        KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, nullptr);
    return request->result;
}

} // namespace host

using namespace host;

extern "C" {

PIRP NTAPI IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                         ULONG InputBufferLength, PVOID OutputBuffer,
                                         ULONG OutputBufferLength, BOOLEAN InternalDeviceIoControl,
                                         PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(PASSIVE_LEVEL, Rule::IrqlPassive, "IoBuildDeviceIoControlRequest", caller);
    if (Kernel::Current().Faults().Hit(FaultPoint::IrpAllocate))
        return nullptr;
    auto request = std::make_shared<BuiltRequest>(IoStatusBlock, OutputBufferLength);
    PIRP irp = IopAllocateIrp(DeviceObject->StackSize, IrpOrigin::System, std::move(request), caller);
    if (irp == nullptr)
        return nullptr;
    irp->UserEvent = Event;
    irp->UserIosb = IoStatusBlock;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    VfIrpQueuedToThread(irp);
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction =
        InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    const std::span input(static_cast<const std::byte*>(InputBuffer), InputBufferLength);
    const std::span output(static_cast<std::byte*>(OutputBuffer), OutputBufferLength);
    if (!IopBufferDeviceControl(irp, location, IoControlCode, input, output)) {
        IopFreeIrp(irp);
        return nullptr;
    }
    return irp;
}

} // extern "C"
