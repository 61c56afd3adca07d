#include "usbd/usb_port.h"

#include "io/device.h"
#include "io/names.h"
#include "io/pnp_manager.h"
#include "usbd/port_lock.h"
#include "usbd/urb.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace host {

UsbPort::UsbPort(UsbBus& bus, std::shared_ptr<module::Device> device, UsbPortOptions options)
    : bus_(bus), device_(std::move(device)), options_(std::move(options))
{
    KeInitializeSpinLock(&lock_);
    KeInitializeDpc(&dpc_, PumpDpc, this);
    KeInitializeTimer(&timer_);
    endpoints_[0];
}

UsbPort::~UsbPort() = default;

bool UsbPort::Enumerate()
{
    constexpr module::SetupPacket kDevice{0x80, USB_REQUEST_GET_DESCRIPTOR, USB_DEVICE_DESCRIPTOR_TYPE << 8,
                                          0, sizeof(USB_DEVICE_DESCRIPTOR)};
    constexpr module::SetupPacket kConfiguration{0x80, USB_REQUEST_GET_DESCRIPTOR,
                                                 USB_CONFIGURATION_DESCRIPTOR_TYPE << 8, 0,
                                                 sizeof(USB_CONFIGURATION_DESCRIPTOR)};
    device_->Advance(Kernel::Current().Now());
    const module::Packet device = device_->Control(kDevice, {});
    const module::Packet configuration = device_->Control(kConfiguration, {});
    if (device.data.size() < sizeof(USB_DEVICE_DESCRIPTOR) ||
        configuration.data.size() < sizeof(USB_CONFIGURATION_DESCRIPTOR))
        return false;
    USB_DEVICE_DESCRIPTOR device_descriptor{};
    USB_CONFIGURATION_DESCRIPTOR configuration_descriptor{};
    std::memcpy(&device_descriptor, device.data.data(), sizeof device_descriptor);
    std::memcpy(&configuration_descriptor, configuration.data.data(), sizeof configuration_descriptor);
    vendor_ = device_descriptor.idVendor;
    product_ = device_descriptor.idProduct;
    remote_wake_ = (configuration_descriptor.bmAttributes & USB_CONFIG_REMOTE_WAKEUP) != 0;
    return true;
}

std::string UsbPort::DeviceId() const
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "USB\\VID_%04X&PID_%04X", static_cast<unsigned>(vendor_),
                  static_cast<unsigned>(product_));
    return text.data() + options_.function_suffix;
}

DEVICE_POWER_STATE UsbPort::PowerState()
{
    const PortLock lock(lock_);
    return power_;
}

bool UsbPort::Gone()
{
    const PortLock lock(lock_);
    return gone_;
}

void UsbPort::WithDevice(const std::function<void(module::Device&)>& look)
{
    {
        const PortLock lock(lock_);
        look(*device_);
    }
    Poke();
}

void UsbPort::Poke()
{
    const PortLock lock(lock_);
    if (!departed_ || !cancelled_.empty())
        KeInsertQueueDpc(&dpc_, nullptr, nullptr);
}

void UsbPort::FillCapabilities(DEVICE_CAPABILITIES* capabilities) const
{
    capabilities->Removable = TRUE;
    capabilities->UniqueID = FALSE;
    capabilities->RawDeviceOK = FALSE;
    capabilities->DeviceD2 = TRUE;
    capabilities->WakeFromD0 = remote_wake_;
    capabilities->WakeFromD2 = remote_wake_;
    capabilities->Address = 1;
    for (std::size_t i = 0; i < options_.device_states.size() && i < PowerSystemMaximum; ++i)
        capabilities->DeviceState[i] = options_.device_states[i];
    capabilities->SystemWake = options_.system_wake;
    capabilities->DeviceWake = options_.device_wake;
}

void UsbPort::Started()
{
    {
        const PortLock lock(lock_);
        started_ = true;
    }
    Poke();
}

// The stack above is gone: nothing of it may stay on the bus.
void UsbPort::Removed()
{
    std::vector<UsbTransferPtr> done;
    {
        const PortLock lock(lock_);
        started_ = false;
        FailAll(USBD_STATUS_DEVICE_GONE, done);
        ClosePipes(std::nullopt);
        configuration_ = 0;
        KeCancelTimer(&timer_);
    }
    // Completions come at DISPATCH_LEVEL, here as well.
    KIRQL irql = PASSIVE_LEVEL;
    KeRaiseIrql(DISPATCH_LEVEL, &irql);
    for (const UsbTransferPtr& transfer : done)
        Complete(transfer);
    KeLowerIrql(irql);
    CompleteWaiter(idle_irp_, STATUS_DEVICE_NOT_CONNECTED, false);
    CompleteWaiter(wake_irp_, STATUS_DEVICE_NOT_CONNECTED, true);
}

void UsbPort::Disconnect()
{
    {
        const PortLock lock(lock_);
        gone_ = true;
    }
    Poke();
}

void UsbPort::Cycle()
{
    bus_.HubThread().Post([self = shared_from_this()] {
        self->Disconnect();
        Kernel::Current().RunUntilIdle();
        PnpManager::Current().Settle();
        self->bus_.Plug(self->device_, self->options_);
    });
}

void UsbPort::SetPower(DEVICE_POWER_STATE state)
{
    bool woken = false;
    {
        const PortLock lock(lock_);
        woken = state == PowerDeviceD0 && idle_called_;
        const DEVICE_POWER_STATE before = power_;
        power_ = state;
        const bool alive = !gone_ && device_->Present();
        if (alive && before == PowerDeviceD0 && state != PowerDeviceD0)
            device_->Suspend();
        if (alive && before != PowerDeviceD0 && state == PowerDeviceD0)
            device_->Resume();
    }
    if (woken)
        CompleteWaiter(idle_irp_, STATUS_SUCCESS, false);
    Poke();
}

NTSTATUS UsbPort::SubmitUrb(PIRP irp)
{
    auto transfer = std::make_shared<UsbTransfer>();
    transfer->irp = irp;
    transfer->urb = static_cast<PURB>(URB_FROM_IRP(irp));
    const USHORT function = transfer->urb->UrbHeader.Function;
    if (KeGetCurrentIrql() != PASSIVE_LEVEL && UrbIsPassive(function))
        VfReport(Rule::UrbBadIrql, UrbFunctionName(function),
                 std::string(UrbFunctionName(function)) + " at IRQL " + std::to_string(KeGetCurrentIrql()));
    USBD_STATUS status = USBD_STATUS_PENDING;
    {
        const PortLock lock(lock_);
        status = Accept(transfer->urb, *transfer);
        if (status == USBD_STATUS_PENDING) {
            IoMarkIrpPending(irp);
            ApplyFault(*transfer);
            in_flight_.insert(transfer->urb);
            Endpoint& endpoint = endpoints_[transfer->endpoint];
            // An abort must not wait behind what it is to abort.
            if (transfer->urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE)
                endpoint.queue.push_front(transfer);
            else
                endpoint.queue.push_back(transfer);
            transfer->urb->UrbHeader.Status = USBD_STATUS_PENDING;
            IoSetCancelRoutine(irp, UsbCancelUrb);
            if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
                std::erase(endpoint.queue, transfer);
                transfer->cancelled = true;
                cancelled_.push_back(transfer);
            }
        }
    }
    if (status == USBD_STATUS_PENDING) {
        Poke();
        return STATUS_PENDING;
    }
    transfer->urb->UrbHeader.Status = status;
    irp->IoStatus.Status = UrbNtStatus(status);
    irp->IoStatus.Information = 0;
    const NTSTATUS answer = irp->IoStatus.Status;
    if (transfer->request != 0) {
        transfer->result = status;
        transfer->status = answer;
        Note(*transfer);
        Kernel::Current().Log().AsyncEnd("usb", UrbFunctionName(transfer->urb->UrbHeader.Function),
                                         transfer.get(), IopStatusText(answer));
        Kernel::Current().Log().Forget(transfer.get());
    }
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return answer;
}

void UsbPort::ApplyFault(UsbTransfer& transfer)
{
    const char* name = UrbFunctionName(transfer.urb->UrbHeader.Function);
    const std::optional<Fault> fault = Kernel::Current().Faults().Hit(FaultPoint::BusRequest, name);
    if (!fault)
        return;
    switch (fault->action) {
    case FaultAction::Fail:
        transfer.result = USBD_STATUS_INTERNAL_HC_ERROR;
        transfer.status = fault->status != 0 ? fault->status : STATUS_UNSUCCESSFUL;
        break;
    case FaultAction::Delay: transfer.not_before = Kernel::Current().Now() + fault->delay; break;
    case FaultAction::Hang: transfer.hung = true; break;
    case FaultAction::Pend: break; // every URB pends anyway
    }
}

// The cancel routine of a queued URB; the DPC completes it.
void UsbPort::CancelUrb(PIRP irp)
{
    {
        const PortLock lock(lock_);
        for (auto& [address, endpoint] : endpoints_) {
            for (auto it = endpoint.queue.begin(); it != endpoint.queue.end(); ++it) {
                if ((*it)->irp != irp)
                    continue;
                (*it)->cancelled = true;
                cancelled_.push_back(*it);
                endpoint.queue.erase(it);
                break;
            }
        }
        // The pump had finished it, but this routine was on its way already.
        for (auto it = limbo_.begin(); it != limbo_.end(); ++it) {
            if ((*it)->irp != irp)
                continue;
            cancelled_.push_back(*it);
            limbo_.erase(it);
            break;
        }
    }
    Poke();
}

void UsbPort::Note(const UsbTransfer& transfer)
{
    bus_.UpdateRequest(transfer.request, [&](UsbRequest& request) {
        request.done = true;
        request.completed = Kernel::Current().InterruptTime();
        request.usbd_status = transfer.result;
        request.status = transfer.status;
    });
}

// IRQL DISPATCH_LEVEL, without the lock.
void UsbPort::Complete(const UsbTransferPtr& transfer)
{
    PIRP irp = transfer->irp;
    {
        const PortLock lock(lock_);
        in_flight_.erase(transfer->urb);
    }
    if (transfer->cancelled)
        transfer->result = USBD_STATUS_CANCELED;
    if (transfer->status == STATUS_SUCCESS)
        transfer->status = UrbNtStatus(transfer->result);
    Note(*transfer);
    Kernel::Current().Log().AsyncEnd("usb", UrbFunctionName(transfer->urb->UrbHeader.Function),
                                     transfer.get(), IopStatusText(transfer->status));
    Kernel::Current().Log().Forget(transfer.get());
    transfer->urb->UrbHeader.Status = transfer->result;
    irp->IoStatus.Status = transfer->status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

} // namespace host
