// Requests that wait for the device: the idle notification, and wait-wake.
#include "usbd/port_lock.h"
#include "usbd/usb_port.h"

#include "io/names.h"
#include "usbd/hub.h"
#include "verifier/idle_rules.h"

#include <utility>

namespace host {
namespace {

void NoteEnd(bool power, NTSTATUS status)
{
    Kernel::Current().Log().Instant("usb", power ? "wait-wake ends" : "idle request ends",
                                    IopStatusText(status));
}

NTSTATUS EndWaiter(PIRP irp, NTSTATUS status, bool power)
{
    NoteEnd(power, status);
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    if (power)
        PoStartNextPowerIrp(irp);
    std::optional<IdleScope> scope;
    if (!power)
        scope.emplace(IoGetCurrentIrpStackLocation(irp)->DeviceObject, IdleScope::Part::Completion);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

VOID NTAPI CancelWaiterRoutine(PDEVICE_OBJECT device, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    const bool power = IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER;
    if (UsbPortOf(device)->ForgetWaiter(irp, STATUS_CANCELLED))
        EndWaiter(irp, STATUS_CANCELLED, power);
}

} // namespace

// The slot keeps a request until its device, its driver or its canceller ends it. False: it was cancelled
// before it came, and is nobody's but the caller's.
bool UsbPort::KeepWaiter(PIRP irp, PIRP& slot)
{
    const PortLock lock(lock_);
    slot = irp;
    IoSetCancelRoutine(irp, CancelWaiterRoutine);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        slot = nullptr;
        return false;
    }
    return true;
}

// Takes the request out of its slot. While the driver's idle routine runs, its request stays: a driver that has seen the
// request end may go away, routine and all. Then the end is noted, and false returned.
bool UsbPort::TakeWaiter(PIRP& slot, NTSTATUS status)
{
    if (&slot == &idle_irp_ && idle_in_callback_) {
        idle_end_ = status;
        return false;
    }
    slot = nullptr;
    return true;
}

bool UsbPort::ForgetWaiter(PIRP irp, NTSTATUS status)
{
    const PortLock lock(lock_);
    return TakeWaiter(irp == idle_irp_ ? idle_irp_ : wake_irp_, status);
}

void UsbPort::CompleteWaiter(PIRP& slot, NTSTATUS status, bool power)
{
    PIRP irp = nullptr;
    {
        const PortLock lock(lock_);
        irp = slot;
        // Without a cancel routine to take, the canceller has it and will forget it.
        if (irp == nullptr || IoSetCancelRoutine(irp, nullptr) == nullptr || !TakeWaiter(slot, status))
            return;
    }
    EndWaiter(irp, status, power);
}

NTSTATUS UsbPort::WaitWake(PIRP irp)
{
    NTSTATUS status = STATUS_SUCCESS;
    {
        const PortLock lock(lock_);
        if (!remote_wake_)
            status = STATUS_NOT_SUPPORTED;
        else if (gone_)
            status = STATUS_DEVICE_NOT_CONNECTED;
        else if (wake_irp_ != nullptr)
            status = STATUS_DEVICE_BUSY;
    }
    if (!NT_SUCCESS(status))
        return EndWaiter(irp, status, true);
    IoMarkIrpPending(irp);
    if (!KeepWaiter(irp, wake_irp_))
        EndWaiter(irp, STATUS_CANCELLED, true);
    return STATUS_PENDING;
}

NTSTATUS UsbPort::CheckIdle()
{
    const PortLock lock(lock_);
    if (gone_)
        return STATUS_DEVICE_NOT_CONNECTED;
    if (!options_.supports_idle)
        return STATUS_NOT_SUPPORTED;
    if (power_ != PowerDeviceD0) {
        VfReport(Rule::IdleNotInD0, "idle", "the device is in D" + std::to_string(power_ - PowerDeviceD0));
        return STATUS_POWER_STATE_INVALID;
    }
    if (idle_irp_ != nullptr) {
        VfReport(Rule::IdleRequestTwice, "idle", "the device has an idle request outstanding");
        return STATUS_DEVICE_BUSY;
    }
    return STATUS_SUCCESS;
}

NTSTATUS UsbPort::SubmitIdle(PIRP irp)
{
    Kernel::Current().Log().Instant("usb", "idle request");
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const auto* callback =
        static_cast<PUSB_IDLE_CALLBACK_INFO>(location->Parameters.DeviceIoControl.Type3InputBuffer);
    const bool usable = callback != nullptr && callback->IdleCallback != nullptr &&
                        location->Parameters.DeviceIoControl.InputBufferLength >= sizeof *callback;
    const NTSTATUS status = usable ? CheckIdle() : STATUS_INVALID_PARAMETER;
    if (!NT_SUCCESS(status))
        return EndWaiter(irp, status, false);
    IoMarkIrpPending(irp);
    {
        const PortLock lock(lock_);
        idle_callback_ = *callback;
        idle_called_ = false;
    }
    if (!KeepWaiter(irp, idle_irp_))
        EndWaiter(irp, STATUS_CANCELLED, false);
    else
        StartIdle();
    return STATUS_PENDING;
}

void UsbPort::AllowIdle(bool allow)
{
    {
        const PortLock lock(lock_);
        idle_allowed_ = allow;
    }
    StartIdle();
}

bool UsbPort::IdleRequested()
{
    const PortLock lock(lock_);
    return idle_irp_ != nullptr;
}

// Calls the driver back when it has asked and the hub lets it. The call comes from the hub's thread.
void UsbPort::StartIdle()
{
    const PortLock lock(lock_);
    if (!idle_allowed_ || idle_irp_ == nullptr || idle_called_ || gone_)
        return;
    bus_.HubThread().Post([self = shared_from_this()] { self->CallIdleRoutine(); });
}

void UsbPort::CallIdleRoutine()
{
    USB_IDLE_CALLBACK_INFO callback{};
    {
        const PortLock lock(lock_);
        if (!idle_allowed_ || idle_irp_ == nullptr || idle_called_ || gone_)
            return;
        idle_called_ = true;
        idle_in_callback_ = true;
        callback = idle_callback_;
    }
    Kernel::Current().Log().Begin("usb", "idle callback");
    const CallbackState before = VfEnterCallback();
    {
        const IdleScope scope(pdo_, IdleScope::Part::Callback);
        callback.IdleCallback(callback.IdleContext);
    }
    VfLeaveCallback(before, "idle callback", reinterpret_cast<const void*>(callback.IdleCallback));
    Kernel::Current().Log().End("usb", "idle callback");
    LeaveIdleRoutine();
}

void UsbPort::LeaveIdleRoutine()
{
    bool still_up = false;
    PIRP ended = nullptr;
    NTSTATUS status = STATUS_SUCCESS;
    {
        const PortLock lock(lock_);
        idle_in_callback_ = false;
        if (idle_end_) {
            ended = std::exchange(idle_irp_, nullptr);
            status = *std::exchange(idle_end_, std::nullopt);
        }
        still_up = power_ == PowerDeviceD0 && idle_irp_ != nullptr && !gone_;
    }
    if (ended != nullptr)
        EndWaiter(ended, status, false);
    if (still_up)
        VfReport(Rule::IdleNotPoweredDown, "idle callback", "the device is still in D0");
}

// A suspended device that wants attention ends both kinds of waiting.
void UsbPort::CheckWaiters()
{
    bool resume = false;
    bool lost = false;
    {
        const PortLock lock(lock_);
        lost = gone_;
        resume = !gone_ && power_ != PowerDeviceD0 && device_->WantsResume();
    }
    if (lost) {
        CompleteWaiter(idle_irp_, STATUS_DEVICE_NOT_CONNECTED, false);
        CompleteWaiter(wake_irp_, STATUS_DEVICE_NOT_CONNECTED, true);
    } else if (resume) {
        CompleteWaiter(wake_irp_, STATUS_SUCCESS, true);
        CompleteWaiter(idle_irp_, STATUS_SUCCESS, false);
    }
}

} // namespace host
