#include "navox_pnp.h"

#include "navox_createclose.h"
#include "navox_devio.h"
#include "navox_portname.h"
#include "navox_requests.h"
#include "navox_selsusp.h"
#include "navox_usb.h"
#include "navox_utils.h"
#include "navox_wmi.h"

namespace {

NTSTATUS PassDown(DEVICE_EXTENSION* extension, PIRP irp)
{
    const NTSTATUS status = SkipAndForward(extension, irp);
    DecrementIoCount(extension);
    return status;
}

NAVOX_PAGED NTSTATUS BringUp(DEVICE_EXTENSION* extension, bool firstStart)
{
    PAGED_CODE();
    NTSTATUS status = ConfigureDevice(extension);
    if (!NT_SUCCESS(status))
        return status;
    extension->FirstOpenSinceStart = TRUE;
    ReportDevicePower(extension, PowerDeviceD0);
    SetPnpState(extension, STATE_STARTED);
    if (firstStart) {
        status = IoSetDeviceInterfaceState(&extension->InterfaceName, TRUE);
        if (NT_SUCCESS(status))
            status = WmiRegister(extension);
        if (!NT_SUCCESS(status))
            return status;
    }
    StartIdleMonitor(extension);
    return status;
}

NAVOX_PAGED NTSTATUS Start(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    const bool firstStart = extension->DevicePnPState == STATE_NEVER_STARTED;
    NTSTATUS status = ForwardAndWait(extension, irp);
    if (NT_SUCCESS(status))
        status = BringUp(extension, firstStart);
    return CompleteAndUncount(extension, irp, status);
}

// Never refused, whoever has the port open. Waits until nothing is inside the driver any more.
NAVOX_PAGED NTSTATUS QuiesceAndPassDown(DEVICE_EXTENSION* extension, PIRP irp, ULONG state)
{
    PAGED_CODE();
    // In the new state the power-up of a device that was on its way into suspend would be failed.
    if (extension->IdleMonitorActive)
        WaitUntilAwake(extension);
    SetPnpState(extension, state);
    DecrementIoCount(extension);
    KeRemoveQueueDpc(&extension->ReaderDpc);
    CancelReader(extension);
    KeWaitForSingleObject(&extension->StopEvent, Executive, KernelMode, FALSE, nullptr);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return SkipAndForward(extension, irp);
}

NAVOX_PAGED NTSTATUS QueryStop(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    return QuiesceAndPassDown(extension, irp, STATE_STOP_PENDING);
}

NAVOX_PAGED NTSTATUS QueryRemove(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    return QuiesceAndPassDown(extension, irp, STATE_REMOVE_PENDING);
}

// why: what the query stopped is not started again.
NAVOX_PAGED NTSTATUS CancelQuery(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    const NTSTATUS status = ForwardAndWait(extension, irp);
    if (NT_SUCCESS(status))
        SetPnpState(extension, STATE_STARTED);
    return CompleteAndUncount(extension, irp, status);
}

NAVOX_PAGED NTSTATUS Stop(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    SetPnpState(extension, STATE_STOPPED);
    StopIdleMonitor(extension);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return PassDown(extension, irp);
}

void FreePortName(DEVICE_EXTENSION* extension)
{
    FreePool(extension->PortName.Buffer, kTagPortName);
    extension->PortName.Buffer = nullptr;
}

void FreeInterfaceName(DEVICE_EXTENSION* extension)
{
    if (extension->InterfaceName.Buffer != nullptr)
        RtlFreeUnicodeString(&extension->InterfaceName);
}

NAVOX_PAGED NTSTATUS SurpriseRemove(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    SetPnpState(extension, STATE_SURPRISE_REMOVED);
    StopIdleMonitor(extension);
    CancelAllClientRequests(extension);
    const NTSTATUS status = IoSetDeviceInterfaceState(&extension->InterfaceName, FALSE);
    if (!NT_SUCCESS(status))
        TRACE(TRACE_PNP, LEVEL_WARNING, "interface not disabled: 0x%x", status);
    FreePortName(extension);
    FreeInterfaceName(extension);
    // why: the request's status is left as it came.
    return PassDown(extension, irp);
}

// Takes the bias off the pending-I/O count and waits until nobody is inside any more.
NAVOX_PAGED void WaitForRemoval(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    DecrementIoCount(extension);
    DecrementIoCount(extension);
    KeWaitForSingleObject(&extension->RemoveEvent, Executive, KernelMode, FALSE, nullptr);
    // Whoever signalled the event may still hold the lock; and an open that was on its way in may have armed
    // the timer since it was cancelled.
    SetPnpState(extension, STATE_REMOVED);
    KeCancelTimer(&extension->ReaderStartTimer);
    KeFlushQueuedDpcs();
}

NAVOX_PAGED void FreeTransferMemory(DEVICE_EXTENSION* extension)
{
    PAGED_CODE();
    FreePool(extension->ReadBuffer, kTagReadBuffer);
    FreePool(extension->AuxBuffer, kTagAuxBuffer);
    FreePool(extension->AuxUrb, kTagAuxUrb);
    extension->ReadBuffer = nullptr;
    extension->AuxBuffer = nullptr;
    extension->AuxUrb = nullptr;
}

NAVOX_PAGED NTSTATUS RemoveDevice(DEVICE_EXTENSION* extension, PIRP irp, bool surprise)
{
    PAGED_CODE();
    SetPnpState(extension, STATE_REMOVED);
    StopIdleMonitor(extension);
    const BOOLEAN readerWasArmed = KeCancelTimer(&extension->ReaderStartTimer);
    TRACE(TRACE_PNP, LEVEL_INFORMATION, "reader start was %s", readerWasArmed ? "armed" : "not armed");
    extension->RemovalStarted = TRUE;
    KeFlushQueuedDpcs();
    extension->NoIdleRequests = TRUE;
    CancelAllClientRequests(extension);
    FreePortName(extension);
    IoWMIRegistrationControl(extension->Self, WMIREG_ACTION_DEREGISTER);
    if (!surprise)
        FreeInterfaceName(extension);
    extension->PreviousDevicePowerState = extension->DevicePowerState;
    extension->DevicePowerState = PowerDeviceD3;
    ReportDevicePower(extension, PowerDeviceD3);
    WaitForRemoval(extension);
    // Only now is no transfer left that uses it.
    FreeTransferMemory(extension);

    irp->IoStatus.Status = STATUS_SUCCESS;
    const NTSTATUS status = SkipAndForward(extension, irp);
    IoDetachDevice(extension->LowerDeviceObject);
    // why: taken off, although nothing in the system ever added it.
    --IoGetConfigurationInformation()->SerialCount;
    RemovePortName(extension);
    ReleasePortNames(extension->Self, false);
    IoDeleteDevice(extension->Self);
    return status;
}

NAVOX_PAGED NTSTATUS Remove(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    return RemoveDevice(extension, irp, false);
}

NAVOX_PAGED NTSTATUS RemoveAfterSurprise(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    return RemoveDevice(extension, irp, true);
}

// The last of the light sleep states that leaves the device above D3, or else D2.
DEVICE_POWER_STATE ChooseIdlePowerState(const DEVICE_EXTENSION* extension)
{
    DEVICE_POWER_STATE idle = PowerDeviceUnspecified;
    for (int state = PowerSystemSleeping1; state <= PowerSystemSleeping3; ++state)
        if (extension->DeviceStateMap[state] < PowerDeviceD3)
            idle = extension->DeviceStateMap[state];
    return idle == PowerDeviceUnspecified || idle == PowerDeviceD0 ? PowerDeviceD2 : idle;
}

void TraceCapabilities(const DEVICE_CAPABILITIES& capabilities)
{
    TRACE(TRACE_PNP, LEVEL_INFORMATION, "Received Device capabilities from lower driver");
    TRACE(TRACE_PNP, LEVEL_INFORMATION, "size %u, version %u, address 0x%x, number 0x%x", capabilities.Size,
          capabilities.Version, capabilities.Address, capabilities.UINumber);
    TRACE(TRACE_PNP, LEVEL_INFORMATION,
          "D1 %u, D2 %u, lock %u, eject %u, removable %u, dock %u, unique id %u, silent %u, raw %u, surprise "
          "%u, hardware disabled %u, non-dynamic %u, warm eject %u, not displayed %u",
          capabilities.DeviceD1, capabilities.DeviceD2, capabilities.LockSupported,
          capabilities.EjectSupported, capabilities.Removable, capabilities.DockDevice, capabilities.UniqueID,
          capabilities.SilentInstall, capabilities.RawDeviceOK, capabilities.SurpriseRemovalOK,
          capabilities.HardwareDisabled, capabilities.NonDynamic, capabilities.WarmEjectSupported,
          capabilities.NoDisplayInUI);
    TRACE(TRACE_PNP, LEVEL_INFORMATION, "wake from D0 %u, D1 %u, D2 %u, D3 %u", capabilities.WakeFromD0,
          capabilities.WakeFromD1, capabilities.WakeFromD2, capabilities.WakeFromD3);
    for (int state = PowerSystemUnspecified; state < PowerSystemMaximum; ++state)
        TRACE(TRACE_PNP, LEVEL_INFORMATION, "%s: %s",
              SystemPowerStateName(static_cast<SYSTEM_POWER_STATE>(state)),
              DevicePowerStateName(capabilities.DeviceState[state]));
    TRACE(TRACE_PNP, LEVEL_INFORMATION, "wakes from %s and %s; latencies %u, %u, %u",
          SystemPowerStateName(capabilities.SystemWake), DevicePowerStateName(capabilities.DeviceWake),
          capabilities.D1Latency, capabilities.D2Latency, capabilities.D3Latency);
}

NAVOX_PAGED NTSTATUS QueryCapabilities(DEVICE_EXTENSION* extension, PIRP irp)
{
    PAGED_CODE();
    const NTSTATUS status = ForwardAndWait(extension, irp);
    if (NT_SUCCESS(status)) {
        PDEVICE_CAPABILITIES capabilities =
            IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceCapabilities.Capabilities;
        extension->Capabilities = *capabilities;
        RtlCopyMemory(extension->DeviceStateMap, capabilities->DeviceState,
                      sizeof(extension->DeviceStateMap));
        TraceCapabilities(extension->Capabilities);
        extension->IdlePowerState = ChooseIdlePowerState(extension);
        capabilities->SurpriseRemovalOK = TRUE; // in the request only
        extension->CapabilitiesReceived = TRUE;
    }
    return CompleteAndUncount(extension, irp, status);
}

using PnpHandler = NTSTATUS(DEVICE_EXTENSION* extension, PIRP irp);

struct PNP_TRANSITION {
    ULONG State;
    UCHAR Minor;
    PnpHandler* Handler;
};

constexpr PNP_TRANSITION kTransitions[] = {
    {STATE_NEVER_STARTED, IRP_MN_START_DEVICE, Start},
    {STATE_NEVER_STARTED, IRP_MN_REMOVE_DEVICE, Remove},
    {STATE_STARTED, IRP_MN_QUERY_REMOVE_DEVICE, QueryRemove},
    {STATE_STARTED, IRP_MN_QUERY_STOP_DEVICE, QueryStop},
    {STATE_STARTED, IRP_MN_QUERY_CAPABILITIES, QueryCapabilities},
    {STATE_STARTED, IRP_MN_SURPRISE_REMOVAL, SurpriseRemove},
    {STATE_STOP_PENDING, IRP_MN_STOP_DEVICE, Stop},
    {STATE_STOP_PENDING, IRP_MN_CANCEL_STOP_DEVICE, CancelQuery},
    {STATE_STOP_PENDING, IRP_MN_SURPRISE_REMOVAL, SurpriseRemove},
    {STATE_REMOVE_PENDING, IRP_MN_REMOVE_DEVICE, Remove},
    {STATE_REMOVE_PENDING, IRP_MN_CANCEL_REMOVE_DEVICE, CancelQuery},
    {STATE_REMOVE_PENDING, IRP_MN_SURPRISE_REMOVAL, SurpriseRemove},
    {STATE_STOPPED, IRP_MN_START_DEVICE, Start},
    {STATE_STOPPED, IRP_MN_SURPRISE_REMOVAL, SurpriseRemove},
    {STATE_SURPRISE_REMOVED, IRP_MN_REMOVE_DEVICE, RemoveAfterSurprise},

    // Without these the device would stay attached to a stack that is gone: a start that failed after
    // STATE_STARTED, and a module that was pulled or removed while the system slept.
    {STATE_STARTED, IRP_MN_REMOVE_DEVICE, Remove},
    {STATE_POWER_QUERIED, IRP_MN_REMOVE_DEVICE, Remove},
    {STATE_POWER_QUERIED, IRP_MN_SURPRISE_REMOVAL, SurpriseRemove},
};

PnpHandler* FindHandler(ULONG state, UCHAR minor)
{
    for (const PNP_TRANSITION& transition : kTransitions)
        if (transition.State == state && transition.Minor == minor)
            return transition.Handler;
    return PassDown;
}

} // namespace

NTSTATUS NTAPI PnpDispatch(PDEVICE_OBJECT device, PIRP irp)
{
    DEVICE_EXTENSION* extension = GetExtension(device);
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    IncrementIoCount(extension);
    if (minor != IRP_MN_START_DEVICE && extension->IdleMonitorActive)
        CancelIdleRequest(extension);
    const ULONG state = extension->DevicePnPState; // one look, so that trace, table and handler agree
    TRACE(TRACE_PNP, LEVEL_INFORMATION, "%s in %s", PnpMinorName(minor), PnpStateName(state));
    return FindHandler(state, minor)(extension, irp);
}
