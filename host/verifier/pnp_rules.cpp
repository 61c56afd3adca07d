#include "verifier/pnp_rules.h"

#include "io/device.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "io/names.h"
#include "io/pnp_manager.h"
#include "po/power_manager.h"

namespace host {
namespace {

enum class Handling {
    Free,     // a driver may complete it as it sees fit
    MustPass, // success only after the drivers below; failing it is allowed
    MayNotFail,
};

Handling HandlingOf(UCHAR minor)
{
    switch (minor) {
    case IRP_MN_START_DEVICE:
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE: return Handling::MustPass;
    case IRP_MN_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_SURPRISE_REMOVAL: return Handling::MayNotFail;
    default: return Handling::Free;
    }
}

bool IsPnpState(UCHAR minor)
{
    return HandlingOf(minor) != Handling::Free;
}

std::string RequestOf(const IrpRecord& record)
{
    return IopRequestName(record.major, record.minor);
}

// Whether the driver below the one at `index` was called.
bool ReachedBelow(const IrpRecord& record, int index)
{
    const MutexLock lock(IrpTable::Current().mutex);
    return index > 1 && record.turns[static_cast<std::size_t>(index) - 1].call != 0;
}

// Nobody turns what a driver above has said into "not supported".
void CheckNotTakenBack(const IRP& irp, const IrpTurn& turn, const IO_STACK_LOCATION& location,
                       const void* caller)
{
    if (irp.IoStatus.Status != STATUS_NOT_SUPPORTED || turn.entry_status == STATUS_NOT_SUPPORTED)
        return;
    VfReport(location.MajorFunction == IRP_MJ_PNP ? Rule::PnpStatusTouched : Rule::PowerStatusTouched,
             IopMinorName(location.MajorFunction, location.MinorFunction),
             IopDescribeDevice(turn.device) + " was given it with " + IopStatusText(turn.entry_status),
             caller);
}

// A driver passes a request that it cannot know as it came.
void CheckUnknownUntouched(const IRP& irp, const IrpTurn& turn, const IO_STACK_LOCATION& location,
                           const void* caller)
{
    struct Kind {
        UCHAR major;
        UCHAR last_minor;
        Rule rule;
    };
    static constexpr Kind kKinds[] = {{IRP_MJ_PNP, IRP_MN_DEVICE_ENUMERATED, Rule::PnpUnknownTouched},
                                      {IRP_MJ_SYSTEM_CONTROL, IRP_MN_REGINFO_EX, Rule::WmiUnknownTouched}};
    for (const Kind& kind : kKinds) {
        if (kind.major == location.MajorFunction && location.MinorFunction > kind.last_minor &&
            (irp.IoStatus.Status != turn.entry_status || irp.IoStatus.Information != turn.entry_information))
            VfReport(kind.rule, IopMinorName(location.MajorFunction, location.MinorFunction),
                     IopDescribeDevice(turn.device) + " passed it down with " +
                         IopStatusText(irp.IoStatus.Status),
                     caller);
    }
}

// The turn of the driver that passes the request down; it has skipped its stack location, or not.
IrpTurn PassingTurn(const IrpRecord& record, const IRP& irp)
{
    const MutexLock lock(IrpTable::Current().mutex);
    const auto index = static_cast<std::size_t>(irp.CurrentLocation);
    const IrpTurn& below = record.turns[index - 1];
    return below.call != 0 && !below.completed ? below : record.turns[index];
}

void CheckSender(const IrpRecord& record, const IRP& irp, const IO_STACK_LOCATION& location,
                 const void* caller)
{
    if (record.origin == IrpOrigin::System)
        return;
    const char* minor = IopMinorName(location.MajorFunction, location.MinorFunction);
    if (location.MajorFunction == IRP_MJ_POWER ||
        (location.MajorFunction == IRP_MJ_PNP && IsPnpState(location.MinorFunction)))
        VfReport(Rule::PnpSystemOnly, minor, std::string(minor) + " was sent by a driver", caller);
    else if (irp.IoStatus.Status != STATUS_NOT_SUPPORTED)
        VfReport(location.MajorFunction == IRP_MJ_PNP ? Rule::PnpInitialStatus : Rule::WmiInitialStatus,
                 minor, std::string(minor) + " holds " + IopStatusText(irp.IoStatus.Status), caller);
}

void CheckPnpCompletion(const IrpRecord& record, const IRP& irp, const IO_STACK_LOCATION& location,
                        const void* caller)
{
    const NTSTATUS status = irp.IoStatus.Status;
    const bool function_driver = location.DeviceObject->DeviceObjectExtension->attached_to != nullptr;
    const Handling handling = HandlingOf(location.MinorFunction);
    const std::string text = RequestOf(record) + " completed with " + IopStatusText(status) + " by " +
                             IopDescribeDevice(location.DeviceObject);
    if (handling == Handling::MayNotFail && !NT_SUCCESS(status)) {
        VfReport(Rule::PnpMayNotFail, IopMinorName(IRP_MJ_PNP, location.MinorFunction), text, caller);
        return;
    }
    if (function_driver && handling != Handling::Free && NT_SUCCESS(status) &&
        !ReachedBelow(record, irp.CurrentLocation))
        VfReport(Rule::PnpCompleted, IopMinorName(IRP_MJ_PNP, location.MinorFunction), text, caller);
    CheckNotTakenBack(irp, record.turns[static_cast<std::size_t>(irp.CurrentLocation)], location, caller);
}

void CheckPowerCompletion(const IrpRecord& record, const IRP& irp, const IO_STACK_LOCATION& location,
                          const void* caller)
{
    const NTSTATUS status = irp.IoStatus.Status;
    const bool function_driver = location.DeviceObject->DeviceObjectExtension->attached_to != nullptr;
    const std::string text = RequestOf(record) + " completed with " + IopStatusText(status) + " by " +
                             IopDescribeDevice(location.DeviceObject);
    const bool reached = ReachedBelow(record, irp.CurrentLocation);
    if (function_driver && !reached && location.MinorFunction == IRP_MN_SET_POWER && !NT_SUCCESS(status))
        VfReport(Rule::PowerMayNotFail, IopMinorName(IRP_MJ_POWER, location.MinorFunction), text, caller);
    if (function_driver && !reached && NT_SUCCESS(status) && location.MinorFunction != IRP_MN_WAIT_WAKE)
        VfReport(Rule::PowerCompleted, IopMinorName(IRP_MJ_POWER, location.MinorFunction), text, caller);
    CheckNotTakenBack(irp, record.turns[static_cast<std::size_t>(irp.CurrentLocation)], location, caller);
}

void CheckWmiCompletion(const IrpRecord& record, const IO_STACK_LOCATION& location, const void* caller)
{
    const bool function_driver = location.DeviceObject->DeviceObjectExtension->attached_to != nullptr;
    if (function_driver &&
        location.Parameters.WMI.ProviderId != reinterpret_cast<ULONG_PTR>(location.DeviceObject))
        VfReport(Rule::WmiWrongProvider, IopMinorName(IRP_MJ_SYSTEM_CONTROL, location.MinorFunction),
                 RequestOf(record) + " completed by " + IopDescribeDevice(location.DeviceObject), caller);
}

} // namespace

void VfDriverLoaded(PDRIVER_OBJECT driver)
{
    if (driver->DriverExtension->AddDevice == nullptr)
        return; // not a Plug and Play driver
    for (UCHAR major : {IRP_MJ_PNP, IRP_MJ_POWER, IRP_MJ_SYSTEM_CONTROL}) {
        const PDRIVER_DISPATCH routine = driver->MajorFunction[major];
        if (routine == nullptr || routine == &IopInvalidDeviceRequest)
            VfReport(Rule::DispatchMissing, IopMajorName(major),
                     IopDriverName(driver) + " has no routine for " + IopMajorName(major));
    }
}

bool VfDeviceDelete(PDEVICE_OBJECT device, const void* caller)
{
    if (!IoManager::Current().DeviceExists(device) || device->DeviceObjectExtension->delete_pending) {
        VfReport(Rule::DeviceDoubleDelete, "IoDeleteDevice", "the device does not exist any more", caller);
        return false;
    }
    const auto* extension = device->DeviceObjectExtension;
    const std::string name = IopDescribeDevice(device);
    // On the way of the remove request, lower drivers delete their device objects before those above detach.
    if (device->AttachedDevice != nullptr && (device->Flags & DO_BUS_ENUMERATED_DEVICE) == 0 &&
        !PnpManager::Current().IsRemoving())
        VfReport(Rule::DeviceDeletedUnder, extension->owner,
                 name + " is deleted under " + IopDescribeDevice(device->AttachedDevice), caller);
    if (extension->attached_to != nullptr)
        VfReport(Rule::DeviceDeletedAttached, extension->owner,
                 name + " is attached to " + IopDescribeDevice(extension->attached_to), caller);
    if (extension->wmi_registered)
        VfReport(Rule::WmiNotDeregistered, extension->owner, name + " is registered with WMI", caller);
    if (PoOutstanding(device) != 0)
        VfReport(Rule::DeviceDeletedWithPower, extension->owner, name + " has a power request outstanding",
                 caller);
    return true;
}

bool VfDeviceAttach(PDEVICE_OBJECT source, PDEVICE_OBJECT target, const void* caller)
{
    if (source->DeviceObjectExtension->attached_to != nullptr || IopBottomOf(target) == source) {
        VfReport(Rule::PnpSameDeviceObject, source->DeviceObjectExtension->owner,
                 IopDescribeDevice(source) + " is attached already", caller);
        return false;
    }
    return true;
}

bool VfDeviceDetach(PDEVICE_OBJECT target, const void* caller)
{
    if (!IoManager::Current().DeviceExists(target) || target->AttachedDevice == nullptr) {
        VfReport(Rule::DeviceDetachNothing, "IoDetachDevice", IopDescribeDevice(target), caller);
        return false;
    }
    return true;
}

void VfPnpForward(const IrpRecord& record, const IRP& irp, const void* caller)
{
    const IO_STACK_LOCATION& next = *(irp.Tail.Overlay.CurrentStackLocation - 1);
    const bool pnp = next.MajorFunction == IRP_MJ_PNP;
    const bool power = next.MajorFunction == IRP_MJ_POWER;
    if (!pnp && !power && next.MajorFunction != IRP_MJ_SYSTEM_CONTROL)
        return;
    const NTSTATUS status = irp.IoStatus.Status;
    const char* minor = IopMinorName(next.MajorFunction, next.MinorFunction);
    if ((pnp || power) && !NT_SUCCESS(status) && status != STATUS_NOT_SUPPORTED)
        VfReport(pnp ? Rule::PnpFailedPassedDown : Rule::PowerFailedPassedDown, minor,
                 std::string(minor) + " holds " + IopStatusText(status), caller);
    if (record.calls == 0) {
        CheckSender(record, irp, next, caller);
        return;
    }
    const IrpTurn turn = PassingTurn(record, irp);
    CheckUnknownUntouched(irp, turn, next, caller);
    if (pnp || power)
        CheckNotTakenBack(irp, turn, next, caller);
}

void VfPnpComplete(const IrpRecord& record, const IRP& irp, const void* caller)
{
    const IO_STACK_LOCATION& location = *irp.Tail.Overlay.CurrentStackLocation;
    if (location.MajorFunction == IRP_MJ_PNP)
        CheckPnpCompletion(record, irp, location, caller);
    else if (location.MajorFunction == IRP_MJ_POWER)
        CheckPowerCompletion(record, irp, location, caller);
    else if (location.MajorFunction == IRP_MJ_SYSTEM_CONTROL)
        CheckWmiCompletion(record, location, caller);
}

void VfDeviceAdded(PDEVICE_OBJECT pdo)
{
    for (PDEVICE_OBJECT device = pdo->AttachedDevice; device != nullptr; device = device->AttachedDevice) {
        const std::string owner = device->DeviceObjectExtension->owner;
        const std::string name = IopDescribeDevice(device);
        if ((device->Flags & DO_DEVICE_INITIALIZING) != 0)
            VfReport(Rule::DeviceInitializing, owner, name + " has DO_DEVICE_INITIALIZING set");
        constexpr ULONG kBoth = DO_BUFFERED_IO | DO_DIRECT_IO;
        if ((device->Flags & kBoth) == kBoth)
            VfReport(Rule::DeviceBothIoFlags, owner, name);
        const PDEVICE_OBJECT below = device->DeviceObjectExtension->attached_to;
        if ((below->Flags & DO_POWER_PAGABLE) != 0 &&
            (device->Flags & (DO_POWER_PAGABLE | DO_POWER_INRUSH)) == 0)
            VfReport(Rule::PagableFlagLost, owner, name);
    }
}

StackBefore VfStackOf(PDEVICE_OBJECT pdo)
{
    StackBefore stack;
    for (PDEVICE_OBJECT device = pdo->AttachedDevice; device != nullptr; device = device->AttachedDevice)
        stack.devices.push_back(device);
    return stack;
}

void VfDeviceRemoved(PDEVICE_OBJECT pdo, const StackBefore& before, NTSTATUS status)
{
    if (!NT_SUCCESS(status))
        VfReport(Rule::PnpMayNotFail, "IRP_MN_REMOVE_DEVICE", "it came back with " + IopStatusText(status));
    IoManager& io = IoManager::Current();
    if (io.DeviceExists(pdo) && pdo->AttachedDevice != nullptr)
        VfReport(Rule::PnpRemoveNoDetach, pdo->AttachedDevice->DeviceObjectExtension->owner,
                 IopDescribeDevice(pdo->AttachedDevice) + " is still attached");
    for (PDEVICE_OBJECT device : before.devices) {
        if (io.DeviceExists(device) && !device->DeviceObjectExtension->delete_pending)
            VfReport(Rule::PnpRemoveNoDelete, device->DeviceObjectExtension->owner,
                     IopDescribeDevice(device) + " is still there");
    }
}

void VfDeviceSurpriseRemoved(PDEVICE_OBJECT pdo, const StackBefore& before)
{
    if (VfStackOf(pdo).devices != before.devices)
        VfReport(Rule::PnpSurpriseDetach, "IRP_MN_SURPRISE_REMOVAL", "the stack is not what it was");
}

} // namespace host
