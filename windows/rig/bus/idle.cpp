// The idle notification: kept until a test lets the device suspend, the driver cancels it, or the module goes.
#include "windows/rig/bus/bus.h"

namespace {

void NTAPI CancelIdle(PDEVICE_OBJECT device, PIRP irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Port& port = *ExtensionOf(device)->port;
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    if (port.idle == irp)
        port.idle = nullptr;
    KeReleaseSpinLock(&port.lock, irql);
    Complete(irp, STATUS_CANCELLED);
}

} // namespace

NTSTATUS SubmitIdle(Port& port, PIRP irp)
{
    if (port.plugged == 0)
        return Complete(irp, STATUS_DEVICE_NOT_CONNECTED);
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    if (port.idle != nullptr) {
        KeReleaseSpinLock(&port.lock, irql);
        RigReport("a second idle request while one is outstanding");
        return Complete(irp, STATUS_DEVICE_BUSY);
    }
    IoMarkIrpPending(irp);
    port.idle = irp;
    IoSetCancelRoutine(irp, CancelIdle);
    const bool cancelled = irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr;
    if (cancelled)
        port.idle = nullptr;
    KeReleaseSpinLock(&port.lock, irql);
    if (cancelled)
        Complete(irp, STATUS_CANCELLED);
    return STATUS_PENDING;
}

void EndIdle(Port& port, NTSTATUS status)
{
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    PIRP irp = port.idle;
    if (irp != nullptr && IoSetCancelRoutine(irp, nullptr) == nullptr)
        irp = nullptr; // its canceller has it
    else
        port.idle = nullptr;
    KeReleaseSpinLock(&port.lock, irql);
    if (irp != nullptr)
        Complete(irp, status);
}

NTSTATUS CallIdle(Port& port)
{
    USB_IDLE_CALLBACK_INFO callback = {};
    KIRQL irql;
    KeAcquireSpinLock(&port.lock, &irql);
    if (port.idle != nullptr)
        callback = *static_cast<PUSB_IDLE_CALLBACK_INFO>(
            IoGetCurrentIrpStackLocation(port.idle)->Parameters.DeviceIoControl.Type3InputBuffer);
    KeReleaseSpinLock(&port.lock, irql);
    if (callback.IdleCallback == nullptr)
        return STATUS_INVALID_DEVICE_STATE;
    callback.IdleCallback(callback.IdleContext);
    if (port.power == PowerDeviceD0)
        RigReport("the idle callback left the device in D0");
    return STATUS_SUCCESS;
}
