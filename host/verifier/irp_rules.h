// What the I/O manager asks of the verifier while requests travel. The checks run on the records beside the
// requests, so that they hold when a request's memory is already gone.
#pragma once

#include "io/irp.h"

namespace host {

// One turn of a driver at a request, from its dispatch call to the call's return.
struct IrpTicket {
    IrpRecordPtr record;
    int index = 0; // stack location
    std::uint64_t call = 0;
    UCHAR major = 0;
};

// Before a routine that takes a request. Null or false: the kernel cannot go on with that request.
IrpRecordPtr VfIrpForward(PDEVICE_OBJECT device, PIRP irp, const void* caller);
IrpRecordPtr VfIrpComplete(PIRP irp, const void* caller);
IrpRecordPtr VfIrpCancel(PIRP irp, const void* caller);
bool VfIrpFree(PIRP irp, const void* caller);
bool VfIrpReuse(PIRP irp, const void* caller);
bool VfIrpInitialize(PIRP irp, const void* caller);

// IofCallDriver was used for a request; power requests have a routine of their own.
void VfIrpNotPower(PIRP irp, const void* caller);

// The request waits on the calling thread's list from now on.
void VfIrpQueuedToThread(PIRP irp);

// A driver is about to be called with the request, and has returned.
IrpTicket VfIrpEnter(const IrpRecordPtr& record, PDEVICE_OBJECT device, PIRP irp);
// The kernel answers STATUS_PENDING in the driver's place and calls it later. Marks the request.
void VfIrpForcePending(const IrpTicket& ticket);
void VfIrpDispatched(const IrpTicket& ticket, NTSTATUS status, const void* routine);

// Completion leaves stack location `index`.
void VfIrpPassed(IrpRecord& record, int index, PIRP irp);
// It is back with the one who sent it first.
void VfIrpBack(IrpRecord& record);
// The completion routine that ran for the driver at `index` let the completion go on. False: it freed the
// request.
bool VfIrpContinues(const IrpRecordPtr& record, int index, bool pending, const void* routine);

// A cancel routine has returned.
void VfCancelReturned(const void* routine);

} // namespace host
