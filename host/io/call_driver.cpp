// Requests on their way: down to a driver, up again, cancelled.
#include "io/device.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "io/irp.h"
#include "io/lower_fault.h"
#include "io/names.h"
#include "verifier/irp_rules.h"

#include <cstring>

namespace host {
namespace {

PIO_STACK_LOCATION LocationAt(PIRP irp, int index)
{
    return reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + (index - 1);
}

// What a location leaves behind when completion has passed it.
void ClearLocation(PIO_STACK_LOCATION location)
{
    location->MinorFunction = 0;
    location->Flags = 0;
    location->Control = 0;
    std::memset(&location->Parameters.Others, 0, sizeof location->Parameters.Others);
    location->FileObject = nullptr;
}

bool WantsRoutine(const IO_STACK_LOCATION& location, const IRP& irp)
{
    const bool success = NT_SUCCESS(irp.IoStatus.Status);
    return (success && (location.Control & SL_INVOKE_ON_SUCCESS) != 0) ||
           (!success && (location.Control & SL_INVOKE_ON_ERROR) != 0) ||
           (irp.Cancel != FALSE && (location.Control & SL_INVOKE_ON_CANCEL) != 0);
}

// Passes the completion on to the driver above. False: the routine kept the request.
bool RunCompletionRoutine(const IrpRecordPtr& record, PIRP irp, const IO_STACK_LOCATION& location)
{
    const bool top = irp->CurrentLocation == irp->StackCount + 1;
    PDEVICE_OBJECT device = top ? nullptr : IoGetCurrentIrpStackLocation(irp)->DeviceObject;
    const int index = irp->CurrentLocation;
    const bool pending = irp->PendingReturned != FALSE;
    if (top)
        VfIrpBack(*record);
    const CallbackState before = VfEnterCallback();
    NTSTATUS status = STATUS_SUCCESS;
    {
        const DriverScope scope(device == nullptr ? nullptr : device->DriverObject);
        status = location.CompletionRoutine(device, irp, location.Context);
    }
    VfLeaveCallback(before, "completion routine", reinterpret_cast<const void*>(location.CompletionRoutine));
    if (status == STATUS_MORE_PROCESSING_REQUIRED)
        return false;
    return VfIrpContinues(record, index, pending, reinterpret_cast<const void*>(location.CompletionRoutine));
}

void FinishRequest(const IrpRecordPtr& record, PIRP irp)
{
    Kernel::Current().Log().AsyncEnd("irp", IopMajorName(record->major), irp,
                                     IopStatusText(irp->IoStatus.Status));
    VfIrpBack(*record);
    if (!record->request) {
        VfReport(Rule::IrpCompletionNotStopped, IopMajorName(record->major),
                 record->Describe() + ": no completion routine kept it", record->caller);
        return;
    }
    const std::shared_ptr<IopRequest> request = record->request;
    const DriverScope scope(nullptr);
    if (request->Completed(irp))
        IopFreeIrp(irp);
}

} // namespace

NTSTATUS NTAPI IopInvalidDeviceRequest(PDEVICE_OBJECT, PIRP irp)
{
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IopCompleteRequest(irp, nullptr);
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS IopDispatch(PDEVICE_OBJECT device, PIRP irp, const IrpTicket& ticket)
{
    const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    PDRIVER_DISPATCH routine = device->DriverObject->MajorFunction[major];
    const CallbackState before = VfEnterCallback();
    NTSTATUS status = STATUS_SUCCESS;
    {
        const DriverScope scope(device->DriverObject);
        status = routine(device, irp);
    }
    VfLeaveCallback(before, IopMajorName(major), reinterpret_cast<const void*>(routine));
    VfIrpDispatched(ticket, status, reinterpret_cast<const void*>(routine));
    return status;
}

NTSTATUS IopCallDriver(PDEVICE_OBJECT device, PIRP irp, const void* caller)
{
    KiYield(YieldPoint::CallDriver);
    IrpRecordPtr record = VfIrpForward(device, irp, caller);
    if (!record)
        return STATUS_INVALID_PARAMETER;
    IoSetNextIrpStackLocation(irp);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    location->DeviceObject = device;
    const IrpTicket ticket = VfIrpEnter(record, device, irp);
    NTSTATUS status = STATUS_SUCCESS;
    if (caller != nullptr && IopLowerFault(device, irp, ticket, &status))
        return status;
    return IopDispatch(device, irp, ticket);
}

void IopCompleteRequest(PIRP irp, const void* caller)
{
    KiYield(YieldPoint::CompleteRequest);
    IrpRecordPtr record = VfIrpComplete(irp, caller);
    if (!record)
        return;
    while (irp->CurrentLocation <= irp->StackCount) {
        const int index = irp->CurrentLocation;
        PIO_STACK_LOCATION passed = LocationAt(irp, index);
        const IO_STACK_LOCATION location = *passed;
        irp->PendingReturned = (location.Control & SL_PENDING_RETURNED) != 0;
        VfIrpPassed(*record, index, irp);
        IoSkipCurrentIrpStackLocation(irp);
        ClearLocation(passed);
        if (WantsRoutine(location, *irp)) {
            if (!RunCompletionRoutine(record, irp, location))
                return;
        } else if (irp->PendingReturned && irp->CurrentLocation <= irp->StackCount) {
            IoMarkIrpPending(irp);
        }
    }
    FinishRequest(record, irp);
}

} // namespace host

using namespace host;

extern "C" {

NTSTATUS NTAPI IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    const void* caller = __builtin_return_address(0);
    VfIrpNotPower(Irp, caller);
    return IopCallDriver(DeviceObject, Irp, caller);
}

VOID NTAPI IofCompleteRequest(PIRP Irp, CCHAR)
{
    IopCompleteRequest(Irp, __builtin_return_address(0));
}

BOOLEAN NTAPI IoCancelIrp(PIRP Irp)
{
    const void* caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, "IoCancelIrp", caller);
    KIRQL irql = PASSIVE_LEVEL;
    IoAcquireCancelSpinLock(&irql);
    IrpRecordPtr record = VfIrpCancel(Irp, caller);
    if (!record) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->Cancel = TRUE;
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    Irp->CancelIrql = irql;
    const bool sent = Irp->CurrentLocation <= Irp->StackCount;
    PDEVICE_OBJECT device = sent ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject : nullptr;
    {
        const DriverScope scope(device == nullptr ? nullptr : device->DriverObject);
        routine(device, Irp);
    }
    VfCancelReturned(reinterpret_cast<const void*>(routine));
    return TRUE;
}

VOID NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) _Analysis_suppress_lock_checking_
{
    KiYield(YieldPoint::CancelLock);
    IoManager& io = IoManager::Current();
    *Irql = KeAcquireSpinLockRaiseToDpc(&io.cancel_lock);
    io.cancel_owner = KeGetCurrentThread();
}

VOID NTAPI IoReleaseCancelSpinLock(KIRQL Irql) _Analysis_suppress_lock_checking_
{
    IoManager& io = IoManager::Current();
    if (io.CancelLockHeldByCaller())
        io.cancel_owner = nullptr;
    KeReleaseSpinLock(&io.cancel_lock, Irql);
}

} // extern "C"
