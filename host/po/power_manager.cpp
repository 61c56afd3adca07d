#include "po/power_manager.h"

#include "io/device.h"
#include "io/irp.h"
#include "io/lower_fault.h"
#include "io/names.h"
#include "io/pnp_manager.h"
#include "verifier/idle_rules.h"
#include "verifier/power_rules.h"

namespace host {
namespace {

const char* const kSystemStates[] = {"unspecified", "S0", "S1", "S2", "S3", "S4", "S5"};
const char* const kDeviceStates[] = {"unspecified", "D0", "D1", "D2", "D3"};

bool IsSerialised(UCHAR minor)
{
    return minor == IRP_MN_SET_POWER || minor == IRP_MN_QUERY_POWER;
}

std::string StateText(POWER_STATE_TYPE type, ULONG state)
{
    if (type == SystemPowerState)
        return state < std::size(kSystemStates) ? kSystemStates[state] : "?";
    return state < std::size(kDeviceStates) ? kDeviceStates[state] : "?";
}

std::string Describe(const IO_STACK_LOCATION& location)
{
    const auto& power = location.Parameters.Power;
    if (location.MinorFunction == IRP_MN_WAIT_WAKE)
        return IopMinorName(IRP_MJ_POWER, location.MinorFunction);
    return std::string(IopMinorName(IRP_MJ_POWER, location.MinorFunction)) + ' ' +
           StateText(power.Type, power.State.SystemState);
}

// A request of PoRequestPowerIrp.
class RequestedIrp : public IopRequest {
  public:
    RequestedIrp(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state, PREQUEST_POWER_COMPLETE routine,
                 PVOID context)
        : device_(device), minor_(minor), state_(state), routine_(routine), context_(context)
    {}

    bool Completed(PIRP irp) override
    {
        if (IsSerialised(minor_))
            PowerManager::Current().Watchdog().End(irp);
        if (routine_ == nullptr)
            return true;
        const CallbackState before = VfEnterCallback();
        routine_(device_, minor_, state_, context_, &irp->IoStatus);
        VfLeaveCallback(before, "power completion", reinterpret_cast<const void*>(routine_));
        return true;
    }

  private:
    PDEVICE_OBJECT device_;
    UCHAR minor_;
    POWER_STATE state_;
    PREQUEST_POWER_COMPLETE routine_;
    PVOID context_;
};

// A device that goes to a lower state must say so before the bus takes its power.
void CheckReported(PIRP irp, const void* caller)
{
    const IO_STACK_LOCATION& next = *IoGetNextIrpStackLocation(irp);
    const auto& power = next.Parameters.Power;
    const bool lowers = next.MinorFunction == IRP_MN_SET_POWER && power.Type == DevicePowerState &&
                        power.State.DeviceState > PowerDeviceD0;
    IrpRecordPtr record = IrpTable::Current().Find(irp);
    if (!lowers || caller == nullptr || !record || record->calls == 0)
        return;
    // The driver's own turn: at the current location, or at the next one when it skipped.
    PDEVICE_OBJECT device = nullptr;
    {
        const MutexLock lock(IrpTable::Current().mutex);
        const IrpTurn& skipped = record->turns[static_cast<std::size_t>(irp->CurrentLocation) - 1];
        device = skipped.call != 0 ? skipped.device : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
    }
    const DEVICE_POWER_STATE reported = PowerManager::Current().ReportedState(device);
    if (reported < power.State.DeviceState)
        VfReport(Rule::PowerUpDownOrder, device->DeviceObjectExtension->owner,
                 "the request for " + StateText(DevicePowerState, power.State.DeviceState) +
                     " was passed down while " + IopDescribeDevice(device) + " reports " +
                     StateText(DevicePowerState, reported),
                 caller);
}

} // namespace

int PoOutstanding(PDEVICE_OBJECT device)
{
    return device->DeviceObjectExtension->power->outstanding;
}

PowerManager::PowerManager(Kernel& kernel) : Component(kernel), policy_("power"), sender_("power sender") {}

PowerManager::~PowerManager() = default;

NTSTATUS PowerManager::Call(PDEVICE_OBJECT device, PIRP irp, const void* caller)
{
    CheckReported(irp, caller);
    KiYield(YieldPoint::CallDriver);
    IrpRecordPtr record = VfIrpForward(device, irp, caller);
    if (!record)
        return STATUS_INVALID_PARAMETER;
    IoSetNextIrpStackLocation(irp);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    location->DeviceObject = device;
    const IrpTicket ticket = VfIrpEnter(record, device, irp);
    const auto type = static_cast<std::size_t>(location->Parameters.Power.Type & 1);
    const bool serialised = IsSerialised(location->MinorFunction);
    {
        const MutexLock lock(mutex_);
        PoDevice& power = *device->DeviceObjectExtension->power;
        ++power.outstanding;
        if (serialised && power.busy[type]) {
            VfIrpForcePending(ticket);
            power.waiting[type].push_back({irp, ticket});
            return STATUS_PENDING;
        }
        power.busy[type] = power.busy[type] || serialised;
    }
    Kernel::Current().Log().AsyncStep("power", IopMinorName(IRP_MJ_POWER, location->MinorFunction), irp,
                                      Describe(*location));
    return IopDispatch(device, irp, ticket);
}

void PowerManager::StartNext(PIRP irp, const void* caller)
{
    if (!VfPowerStartNext(irp, caller))
        return;
    const IO_STACK_LOCATION& location = *IoGetCurrentIrpStackLocation(irp);
    if (!IsSerialised(location.MinorFunction))
        return;
    PDEVICE_OBJECT device = location.DeviceObject;
    const auto type = static_cast<std::size_t>(location.Parameters.Power.Type & 1);
    const MutexLock lock(mutex_);
    PoDevice& power = *device->DeviceObjectExtension->power;
    if (power.waiting[type].empty()) {
        power.busy[type] = false;
        return;
    }
    const PoDevice::Waiting next = power.waiting[type].front();
    power.waiting[type].pop_front();
    sender_.Post([=] { IopDispatch(device, next.irp, next.ticket); });
}

POWER_STATE PowerManager::SetState(PDEVICE_OBJECT device, POWER_STATE_TYPE type, POWER_STATE state)
{
    Kernel::Current().Log().Instant("power", "PoSetPowerState",
                                    StateText(type, state.SystemState) + " by " +
                                        device->DeviceObjectExtension->owner);
    const MutexLock lock(mutex_);
    POWER_STATE previous{};
    ULONG& kept = device->DeviceObjectExtension->power->state[static_cast<std::size_t>(type & 1)];
    previous.SystemState = static_cast<SYSTEM_POWER_STATE>(kept);
    kept = state.SystemState;
    return previous;
}

DEVICE_POWER_STATE PowerManager::ReportedState(PDEVICE_OBJECT device)
{
    const MutexLock lock(mutex_);
    return static_cast<DEVICE_POWER_STATE>(device->DeviceObjectExtension->power->state[DevicePowerState]);
}

void PowerManager::TurnEnded(PDEVICE_OBJECT device)
{
    const MutexLock lock(mutex_);
    --device->DeviceObjectExtension->power->outstanding;
}

NTSTATUS PowerManager::Request(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state,
                               PREQUEST_POWER_COMPLETE routine, PVOID context, PIRP* irp_out)
{
    if (!IsSerialised(minor) && minor != IRP_MN_WAIT_WAKE)
        return STATUS_INVALID_PARAMETER_2;
    const std::optional<Fault> fault = Kernel::Current().Faults().Hit(FaultPoint::PowerRequest);
    if (fault && fault->action == FaultAction::Fail)
        return fault->status != 0 ? fault->status : STATUS_INSUFFICIENT_RESOURCES;
    PDEVICE_OBJECT top = IopTopOf(device);
    auto request = std::make_shared<RequestedIrp>(device, minor, state, routine, context);
    PIRP irp = IopAllocateIrp(top->StackSize, IrpOrigin::System, std::move(request), nullptr);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_POWER;
    location->MinorFunction = minor;
    if (minor == IRP_MN_WAIT_WAKE) {
        location->Parameters.WaitWake.PowerState = state.SystemState;
    } else {
        location->Parameters.Power.Type = DevicePowerState;
        location->Parameters.Power.State = state;
    }
    if (irp_out != nullptr)
        *irp_out = irp;
    Kernel::Current().Log().AsyncBegin("irp", "IRP_MJ_POWER", irp, Describe(*location));
    PDEVICE_OBJECT pdo = IopBottomOf(device);
    if (IsSerialised(minor))
        watchdog_.Begin(irp, pdo, minor, state.DeviceState);
    {
        const IdleScope outside; // what the stack does with it is not the requester's doing
        if (KeGetCurrentIrql() >= DISPATCH_LEVEL || fault.has_value())
            sender_.Post([=, this] { Call(top, irp, nullptr); });
        else
            Call(top, irp, nullptr);
    }
    if (minor == IRP_MN_SET_POWER && state.DeviceState == PowerDeviceD0)
        IdleScope::NotePowerUp(pdo);
    return STATUS_PENDING;
}

NTSTATUS PowerManager::SendSystem(const PnpNodePtr& node, UCHAR minor, SYSTEM_POWER_STATE state)
{
    PDEVICE_OBJECT top = IopTopOf(node->pdo);
    auto request = std::make_shared<IopWaitedRequest>();
    PIRP irp = IopAllocateIrp(top->StackSize, IrpOrigin::System, request, nullptr);
    if (irp == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(irp);
    location->MajorFunction = IRP_MJ_POWER;
    location->MinorFunction = minor;
    location->Parameters.Power.Type = SystemPowerState;
    location->Parameters.Power.State.SystemState = state;
    location->Parameters.Power.ShutdownType =
        state == PowerSystemWorking ? PowerActionNone : PowerActionSleep;
    Kernel::Current().Log().AsyncBegin("irp", "IRP_MJ_POWER", irp, Describe(*location));
    const IrpRecordPtr record = IrpTable::Current().Find(irp);
    Call(top, irp, nullptr);
    LARGE_INTEGER limit{};
    limit.QuadPart = -kPowerPatience;
    if (KeWaitForSingleObject(&request->done, Executive, KernelMode, FALSE, &limit) == STATUS_TIMEOUT) {
        PoReportStuck(record, node->pdo);
        return STATUS_IO_TIMEOUT;
    }
    return request->result.Status;
}

NTSTATUS PowerManager::QueryAll(SYSTEM_POWER_STATE state)
{
    for (const PnpNodePtr& node : PnpManager::Current().Stacks()) {
        const NTSTATUS status = SendSystem(node, IRP_MN_QUERY_POWER, state);
        if (!NT_SUCCESS(status))
            return status;
    }
    std::function<NTSTATUS(SYSTEM_POWER_STATE)> neighbour;
    {
        const MutexLock lock(mutex_);
        neighbour = neighbour_;
    }
    return neighbour ? neighbour(state) : STATUS_SUCCESS;
}

NTSTATUS PowerManager::SetAll(SYSTEM_POWER_STATE state)
{
    NTSTATUS first = STATUS_SUCCESS;
    for (const PnpNodePtr& node : PnpManager::Current().Stacks()) {
        const NTSTATUS status = SendSystem(node, IRP_MN_SET_POWER, state);
        if (!NT_SUCCESS(status) && NT_SUCCESS(first))
            first = status;
    }
    const MutexLock lock(mutex_);
    system_ = state;
    return first;
}

NTSTATUS PowerManager::QuerySystem(SYSTEM_POWER_STATE state)
{
    NTSTATUS status = STATUS_SUCCESS;
    policy_.Run([&] { status = QueryAll(state); });
    return status;
}

NTSTATUS PowerManager::SetSystem(SYSTEM_POWER_STATE state)
{
    NTSTATUS status = STATUS_SUCCESS;
    policy_.Run([&] { status = SetAll(state); });
    return status;
}

NTSTATUS PowerManager::Sleep(SYSTEM_POWER_STATE state)
{
    NTSTATUS status = STATUS_SUCCESS;
    policy_.Run([&] {
        status = QueryAll(state);
        if (NT_SUCCESS(status))
            status = SetAll(state);
        else
            SetAll(PowerSystemWorking);
    });
    return status;
}

NTSTATUS PowerManager::Send(const PnpNodePtr& node, UCHAR minor)
{
    NTSTATUS status = STATUS_SUCCESS;
    policy_.Run([&] { status = SendSystem(node, minor, PowerSystemUnspecified); });
    return status;
}

SYSTEM_POWER_STATE PowerManager::SystemState() const
{
    const MutexLock lock(mutex_);
    return system_;
}

void PowerManager::SetNeighbour(std::function<NTSTATUS(SYSTEM_POWER_STATE)> answer)
{
    const MutexLock lock(mutex_);
    neighbour_ = std::move(answer);
}

void PowerManager::Shutdown()
{
    watchdog_.Stop();
    policy_.Stop();
    sender_.Stop();
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI PoCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    return PowerManager::Current().Call(DeviceObject, Irp, __builtin_return_address(0));
}

VOID NTAPI PoStartNextPowerIrp(PIRP Irp)
{
    PowerManager::Current().StartNext(Irp, __builtin_return_address(0));
}

POWER_STATE NTAPI PoSetPowerState(PDEVICE_OBJECT DeviceObject, POWER_STATE_TYPE Type, POWER_STATE State)
{
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, "PoSetPowerState",
                        __builtin_return_address(0));
    return PowerManager::Current().SetState(DeviceObject, Type, State);
}

NTSTATUS NTAPI PoRequestPowerIrp(PDEVICE_OBJECT DeviceObject, UCHAR MinorFunction, POWER_STATE PowerState,
                                 PREQUEST_POWER_COMPLETE CompletionFunction, PVOID Context, PIRP* Irp)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, "PoRequestPowerIrp", caller);
    if (Irp != nullptr && MinorFunction != IRP_MN_WAIT_WAKE)
        VfReport(Rule::RequestedPowerIrp, "PoRequestPowerIrp",
                 "only the request of IRP_MN_WAIT_WAKE may be asked for, to cancel it", caller);
    return PowerManager::Current().Request(DeviceObject, MinorFunction, PowerState, CompletionFunction,
                                           Context, Irp);
}

} // extern "C"
