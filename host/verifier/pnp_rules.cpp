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

// The rule of a request whose minor code no driver knows; nothing for the codes that exist.
std::optional<Rule> UnknownRule(const IO_STACK_LOCATION& location)
{
    struct Kind {
        UCHAR major;
        UCHAR last_minor;
        Rule rule;
    };
    static constexpr Kind kKinds[] = {{IRP_MJ_PNP, IRP_MN_DEVICE_ENUMERATED, Rule::PnpUnknownTouched},
                                      {IRP_MJ_POWER, IRP_MN_QUERY_POWER, Rule::PowerUnknownTouched},
                                      {IRP_MJ_SYSTEM_CONTROL, IRP_MN_REGINFO_EX, Rule::WmiUnknownTouched}};
    for (const Kind& kind : kKinds) {
        if (kind.major == location.MajorFunction && location.MinorFunction > kind.last_minor)
            return kind.rule;
    }
    return std::nullopt;
}

bool IsUntouched(const IRP& irp, const IrpTurn& turn)
{
    return irp.IoStatus.Status == turn.entry_status && irp.IoStatus.Information == turn.entry_information;
}

// A driver leaves a request that it cannot know as it came.
void CheckUnknownUntouched(const IRP& irp, const IrpTurn& turn, const IO_STACK_LOCATION& location,
                           const char* done, const void* caller)
{
    const std::optional<Rule> rule = UnknownRule(location);
    if (rule && !IsUntouched(irp, turn))
        VfReport(*rule, IopMinorName(location.MajorFunction, location.MinorFunction),
                 IopDescribeDevice(turn.device) + done + IopStatusText(irp.IoStatus.Status), caller);
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

// A driver completes a request.
struct Completion {
    const IRP& irp;
    const IO_STACK_LOCATION& location;
    const void* caller;
    IrpTurn turn{};
    IrpTurn below{};    // of the driver below, when it was called
    bool alone = false; // others are below, and none was called

    Completion(const IrpRecord& record, const IRP& request, const void* at)
        : irp(request), location(*request.Tail.Overlay.CurrentStackLocation), caller(at)
    {
        const MutexLock lock(IrpTable::Current().mutex);
        const auto index = static_cast<std::size_t>(irp.CurrentLocation);
        turn = record.turns[index];
        below = record.turns[index - 1];
        alone = HasOthersBelow() && below.call == 0;
    }
    bool HasOthersBelow() const
    {
        return location.DeviceObject->DeviceObjectExtension->attached_to != nullptr;
    }
    bool Success() const { return NT_SUCCESS(irp.IoStatus.Status); }
    void Report(Rule rule) const
    {
        VfReport(rule, IopMinorName(location.MajorFunction, location.MinorFunction),
                 IopRequestName(location.MajorFunction, location.MinorFunction) + " completed with " +
                     IopStatusText(irp.IoStatus.Status) + " by " + IopDescribeDevice(location.DeviceObject),
                 caller);
    }
};

// What holds for every driver, whatever it knows of the request.
void CheckCompletion(const Completion& it)
{
    const std::optional<Rule> unknown = UnknownRule(it.location);
    const bool changed = it.below.completed && it.irp.IoStatus.Status != it.below.status;
    if (unknown && (it.alone || changed))
        it.Report(*unknown);
    else
        CheckNotTakenBack(it.irp, it.turn, it.location, it.caller);
}

void CheckPnpCompletion(const Completion& it)
{
    const Handling handling = HandlingOf(it.location.MinorFunction);
    if (handling == Handling::MayNotFail && !it.Success())
        it.Report(Rule::PnpMayNotFail);
    else if (it.alone && handling != Handling::Free && it.Success())
        it.Report(Rule::PnpCompleted);
    else if (it.alone && IsUntouched(it.irp, it.turn))
        it.Report(Rule::PnpUntouchedCompleted);
    else
        CheckCompletion(it);
}

void CheckPowerCompletion(const Completion& it)
{
    const UCHAR minor = it.location.MinorFunction;
    if (it.alone && minor == IRP_MN_SET_POWER && !it.Success())
        it.Report(Rule::PowerMayNotFail);
    else if (it.alone && IsUntouched(it.irp, it.turn))
        it.Report(Rule::PowerUntouchedCompleted);
    else if (it.alone && it.Success() && minor <= IRP_MN_QUERY_POWER && minor != IRP_MN_WAIT_WAKE)
        it.Report(Rule::PowerCompleted);
    else
        CheckCompletion(it);
}

void CheckWmiCompletion(const Completion& it)
{
    if (it.HasOthersBelow() &&
        it.location.Parameters.WMI.ProviderId != reinterpret_cast<ULONG_PTR>(it.location.DeviceObject))
        it.Report(Rule::WmiWrongProvider);
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

void VfPnpForward(const IrpRecord& record, const IRP& irp, const IrpTurn& turn, const void* caller)
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
    CheckUnknownUntouched(irp, turn, next, " passed it down with ", caller);
    if (pnp || power)
        CheckNotTakenBack(irp, turn, next, caller);
}

void VfPnpComplete(const IrpRecord& record, const IRP& irp, const void* caller)
{
    switch (irp.Tail.Overlay.CurrentStackLocation->MajorFunction) {
    case IRP_MJ_PNP: CheckPnpCompletion({record, irp, caller}); break;
    case IRP_MJ_POWER: CheckPowerCompletion({record, irp, caller}); break;
    case IRP_MJ_SYSTEM_CONTROL: CheckWmiCompletion({record, irp, caller}); break;
    default: break;
    }
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
