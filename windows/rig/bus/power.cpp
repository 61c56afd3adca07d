// Power requests that a driver asks for: made and sent by a thread of their own, as the power manager does.
#include "windows/rig/bus/bus.h"
#include "windows/rig/bus/replacements.h"

namespace {

struct PowerRequest {
    PDEVICE_OBJECT device; // named by the caller
    PDEVICE_OBJECT top;    // of its stack, referenced
    UCHAR minor;
    POWER_STATE state;
    PREQUEST_POWER_COMPLETE routine;
    PVOID context;
    PIRP irp;
    PIO_WORKITEM item;
};

NTSTATUS NTAPI PowerDone(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    auto* request = static_cast<PowerRequest*>(context);
    IO_STATUS_BLOCK status = irp->IoStatus;
    if (request->routine != nullptr)
        request->routine(request->device, request->minor, request->state, request->context, &status);
    ObDereferenceObject(request->top);
    ExFreePoolWithTag(request, kTag);
    IoFreeIrp(irp);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

void NTAPI SendPower(PDEVICE_OBJECT, PVOID context)
{
    auto* request = static_cast<PowerRequest*>(context);
    IoFreeWorkItem(request->item);
    PoCallDriver(request->top, request->irp);
}

} // namespace

NTSTATUS NTAPI RigRequestPowerIrp(PDEVICE_OBJECT device, UCHAR minor, POWER_STATE state,
                                  PREQUEST_POWER_COMPLETE routine, PVOID context, PIRP* irp)
{
    const PDEVICE_OBJECT top = IoGetAttachedDeviceReference(device);
    auto* request =
        static_cast<PowerRequest*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(PowerRequest), kTag));
    const PIRP made = IoAllocateIrp(top->StackSize, FALSE);
    const PIO_WORKITEM item = IoAllocateWorkItem(g_bus.control);
    if (request == nullptr || made == nullptr || item == nullptr) {
        if (item != nullptr)
            IoFreeWorkItem(item);
        if (made != nullptr)
            IoFreeIrp(made);
        if (request != nullptr)
            ExFreePoolWithTag(request, kTag);
        ObDereferenceObject(top);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *request = {device, top, minor, state, routine, context, made, item};
    made->IoStatus.Status = STATUS_NOT_SUPPORTED;
    const PIO_STACK_LOCATION location = IoGetNextIrpStackLocation(made);
    location->MajorFunction = IRP_MJ_POWER;
    location->MinorFunction = minor;
    if (minor == IRP_MN_WAIT_WAKE) {
        location->Parameters.WaitWake.PowerState = state.SystemState;
    } else {
        location->Parameters.Power.Type = DevicePowerState;
        location->Parameters.Power.State = state;
    }
    IoSetCompletionRoutine(made, PowerDone, request, TRUE, TRUE, TRUE);
    if (irp != nullptr)
        *irp = made;
    IoQueueWorkItem(item, SendPower, DelayedWorkQueue, request);
    return STATUS_PENDING;
}
