#include "lower_filter.h"

#include "io/driver.h"
#include "io/names.h"

#include <usbioctl.h>

#include <utility>

namespace navox_test {
namespace {

constexpr const char* kFilterName = "filter";

struct FilterExtension {
    LowerFilter* filter;
    PDEVICE_OBJECT below;
};

FilterExtension& ExtensionOf(PDEVICE_OBJECT device)
{
    return *static_cast<FilterExtension*>(device->DeviceExtension);
}

std::string NameOf(const IO_STACK_LOCATION& location)
{
    const std::string name = host::IopMinorName(location.MajorFunction, location.MinorFunction);
    const auto& power = location.Parameters.Power;
    const bool has_state =
        location.MajorFunction == IRP_MJ_POWER && location.MinorFunction != IRP_MN_WAIT_WAKE;
    if (!has_state)
        return name;
    // The first state of either kind is "unspecified"; S0 and D0 follow.
    return name + (power.Type == SystemPowerState ? " S" : " D") +
           std::to_string(power.State.SystemState - 1);
}

NTSTATUS NTAPI FilterDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    return ExtensionOf(device).filter->Dispatch(device, irp);
}

NTSTATUS NTAPI NoAddDevice(PDRIVER_OBJECT, PDEVICE_OBJECT)
{
    return STATUS_SUCCESS;
}

VOID NTAPI NoUnload(PDRIVER_OBJECT) {}

NTSTATUS NTAPI FilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    for (PDRIVER_DISPATCH& routine : driver->MajorFunction)
        routine = FilterDispatch;
    driver->DriverExtension->AddDevice = NoAddDevice;
    driver->DriverUnload = NoUnload;
    return STATUS_SUCCESS;
}

} // namespace

void LowerFilter::AttachTo(host::PnpNode& node)
{
    if (host::IoDriverByName(kFilterName) == nullptr)
        host::IoLoadDriver(kFilterName, FilterEntry);
    PDEVICE_OBJECT device = nullptr;
    IoCreateDevice(host::IoDriverByName(kFilterName), sizeof(FilterExtension), nullptr, FILE_DEVICE_UNKNOWN,
                   0, FALSE, &device);
    ExtensionOf(device) = {this, IoAttachDeviceToDeviceStack(device, node.pdo)};
    device->Flags |= DO_POWER_PAGABLE;
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
}

void LowerFilter::Fail(const std::string& name, NTSTATUS status)
{
    const std::lock_guard guard(lock_);
    plans_[name] = status;
}

std::vector<LowerFilter::HeldRequest> LowerFilter::TakeHeld()
{
    const std::lock_guard guard(lock_);
    plans_.clear();
    return std::exchange(held_, {});
}

void LowerFilter::Release()
{
    for (const HeldRequest& request : TakeHeld())
        PassOn(request.device, request.irp);
}

void LowerFilter::EndHeld(NTSTATUS status)
{
    for (const HeldRequest& request : TakeHeld()) {
        request.irp->IoStatus.Status = status;
        IoCompleteRequest(request.irp, IO_NO_INCREMENT);
    }
}

NTSTATUS LowerFilter::PassOn(PDEVICE_OBJECT device, PIRP irp) const
{
    const PDEVICE_OBJECT below = ExtensionOf(device).below;
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const UCHAR major = location->MajorFunction;
    const bool remove = major == IRP_MJ_PNP && location->MinorFunction == IRP_MN_REMOVE_DEVICE;
    if (major == IRP_MJ_POWER) {
        const auto& power = location->Parameters.Power;
        if (location->MinorFunction == IRP_MN_SET_POWER && power.Type == DevicePowerState)
            PoSetPowerState(device, DevicePowerState, power.State);
        PoStartNextPowerIrp(irp);
    }
    if ((location->Control & SL_PENDING_RETURNED) != 0)
        IoCopyCurrentIrpStackLocationToNext(irp); // it was held: the mark is this driver's
    else
        IoSkipCurrentIrpStackLocation(irp);
    const NTSTATUS status = major == IRP_MJ_POWER ? PoCallDriver(below, irp) : IoCallDriver(below, irp);
    if (remove && !stays_) {
        IoDetachDevice(below);
        IoDeleteDevice(device);
    }
    return status;
}

NTSTATUS LowerFilter::DispatchUrb(PDEVICE_OBJECT device, PIRP irp) const
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters;
    std::optional<NTSTATUS> status;
    if (parameters.DeviceIoControl.IoControlCode == IOCTL_INTERNAL_USB_SUBMIT_URB)
        status = urb_hook_(*static_cast<PURB>(parameters.Others.Argument1));
    if (!status)
        return PassOn(device, irp);
    irp->IoStatus.Status = *status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return *status;
}

std::size_t LowerFilter::Held() const
{
    const std::lock_guard guard(lock_);
    return held_.size();
}

NTSTATUS LowerFilter::Dispatch(PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const UCHAR major = location->MajorFunction;
    std::string name;
    if (major == IRP_MJ_PNP || major == IRP_MJ_POWER) {
        name = NameOf(*location);
        const bool touched = irp->IoStatus.Status != STATUS_NOT_SUPPORTED;
        host::Kernel::Current().Log().Instant(
            "below", "request", touched ? name + " with " + host::IopStatusText(irp->IoStatus.Status) : name);
    } else if (location->Parameters.DeviceIoControl.IoControlCode ==
               IOCTL_INTERNAL_USB_SUBMIT_IDLE_NOTIFICATION) {
        name = kIdleRequest;
    }
    const std::optional<NTSTATUS> plan = PlanFor(name, device, irp);
    if (!plan)
        return urb_hook_ && major == IRP_MJ_INTERNAL_DEVICE_CONTROL ? DispatchUrb(device, irp)
                                                                    : PassOn(device, irp);
    if (*plan == STATUS_PENDING)
        return STATUS_PENDING;
    if (major == IRP_MJ_POWER)
        PoStartNextPowerIrp(irp);
    irp->IoStatus.Status = *plan;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return *plan;
}

// What is to be done with the request; one that is to be held is.
std::optional<NTSTATUS> LowerFilter::PlanFor(const std::string& name, PDEVICE_OBJECT device, PIRP irp)
{
    const std::lock_guard guard(lock_);
    const auto plan = plans_.find(name);
    if (plan == plans_.end())
        return std::nullopt;
    if (plan->second == STATUS_PENDING) {
        IoMarkIrpPending(irp);
        held_.push_back({device, irp});
    }
    return plan->second;
}

} // namespace navox_test
