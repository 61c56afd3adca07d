#include "verifier/irp_rules.h"

#include "io/device.h"
#include "io/driver.h"
#include "io/io_manager.h"
#include "io/names.h"
#include "ke/thread.h"
#include "verifier/pnp_rules.h"
#include "verifier/power_rules.h"

#include <algorithm>
#include <span>

namespace host {
namespace {

constexpr UCHAR kInvoke = SL_INVOKE_ON_SUCCESS | SL_INVOKE_ON_ERROR | SL_INVOKE_ON_CANCEL;

const char* MajorOf(const IrpRecord& record)
{
    return IopMajorName(record.major);
}

void ReportIrp(Rule rule, const IrpRecord& record, const std::string& text, const void* caller)
{
    VfReport(rule, MajorOf(record), record.Describe() + ": " + text, caller);
}

// The record of a live request; reports what else it may be.
IrpRecordPtr Live(PIRP irp, const char* routine, const void* caller)
{
    IrpTable& table = IrpTable::Current();
    if (IrpRecordPtr record = table.Find(irp))
        return record;
    const std::string was = table.WasFreed(irp) ? " that was freed" : "";
    VfReport(Rule::IrpInvalid, routine, std::string(routine) + " was given a request" + was, caller);
    return nullptr;
}

bool IsStatus(NTSTATUS status)
{
    // Severity and facility of anything a driver may say: no customer bit, and no -1 or uninitialised stack.
    constexpr ULONG kCustomer = 0x30000000;
    return status != -1 && (static_cast<ULONG>(status) & kCustomer) == 0;
}

void CheckNoSpinLock(const IrpRecord& record, const char* what, const void* caller)
{
    if (VfSpinLocksHeld() != 0)
        ReportIrp(Rule::SpinLockSafe, record,
                  std::string(what) + " while these locks are held: " + VfDescribeLocksHeld(), caller);
}

void CheckForwardIrql(const IrpRecord& record, UCHAR major, const void* caller)
{
    const KIRQL irql = KeGetCurrentIrql();
    if (irql > DISPATCH_LEVEL)
        ReportIrp(Rule::IrpForwardedAtHighIrql, record, "passed down at IRQL " + std::to_string(irql),
                  caller);
    const bool anywhere = major == IRP_MJ_READ || major == IRP_MJ_WRITE || major == IRP_MJ_DEVICE_CONTROL ||
                          major == IRP_MJ_INTERNAL_DEVICE_CONTROL || major == IRP_MJ_POWER;
    if (!anywhere && irql > APC_LEVEL)
        ReportIrp(Rule::ForwardedAtBadIrql, record,
                  std::string(IopMajorName(major)) + " passed down at IRQL " + std::to_string(irql), caller);
}

// A location that was copied whole carries the routine of the driver above with it.
void CheckStackCopy(const IrpRecord& record, const IRP& irp, const void* caller)
{
    if (irp.CurrentLocation > irp.StackCount)
        return;
    const IO_STACK_LOCATION* current = irp.Tail.Overlay.CurrentStackLocation;
    const IO_STACK_LOCATION* next = current - 1;
    const bool same = current->CompletionRoutine != nullptr && current->Control != 0 && next->Control != 0 &&
                      next->CompletionRoutine == current->CompletionRoutine &&
                      next->Context == current->Context;
    if (same)
        ReportIrp(Rule::IrpBadStackCopy, record,
                  "the next location has the completion routine of the driver above", caller);
}

// The turn of the driver that passes the request down, and whether it has skipped its stack location.
struct Passing {
    IrpTurn turn{};
    bool skipped = false;
};

Passing PassingOf(const IrpRecord& record, const IRP& irp)
{
    const MutexLock lock(IrpTable::Current().mutex);
    const auto index = static_cast<std::size_t>(irp.CurrentLocation);
    const IrpTurn& below = record.turns[index - 1];
    if (below.call != 0 && !below.completed)
        return {below, true};
    return {index < record.turns.size() ? record.turns[index] : IrpTurn{}, false};
}

// A driver that only hands its location on has nothing to copy; one that has marked the location keeps it.
void CheckNeedlessCopy(const IrpRecord& record, const IRP& irp, const void* caller)
{
    if (irp.CurrentLocation > irp.StackCount)
        return;
    const IO_STACK_LOCATION& current = *irp.Tail.Overlay.CurrentStackLocation;
    const IO_STACK_LOCATION& next = *(&current - 1);
    const bool kept = (current.Control & SL_PENDING_RETURNED) != 0 || (next.Control & kInvoke) != 0;
    if (!kept && next.MajorFunction == current.MajorFunction && next.MinorFunction == current.MinorFunction &&
        next.FileObject == current.FileObject &&
        std::ranges::equal(std::as_bytes(std::span(&next.Parameters, 1)),
                           std::as_bytes(std::span(&current.Parameters, 1))))
        ReportIrp(Rule::IrpNeedlessCopy, record, "copied by " + IopDescribeDevice(current.DeviceObject),
                  caller);
}

// The driver that the thread is inside of must be the one that has the request.
void CheckOwner(Rule rule, PDEVICE_OBJECT owner, const IrpRecord& record, const void* caller)
{
    const PDRIVER_OBJECT inside = DriverScope::Current();
    if (caller != nullptr && inside != nullptr && owner != nullptr && owner->DriverObject != inside)
        ReportIrp(rule, record,
                  "by " + IopDriverName(inside) + " while " + IopDescribeDevice(owner) + " has it", caller);
}

// Whoever completes a request has no use for a routine that waits for a driver below.
void CheckRoutineUsed(const IrpRecord& record, const IRP& irp, const void* caller)
{
    if (irp.CurrentLocation <= 1)
        return;
    const IO_STACK_LOCATION& next = *(irp.Tail.Overlay.CurrentStackLocation - 1);
    if ((next.Control & kInvoke) != 0)
        ReportIrp(Rule::CompletionRoutineRegistered, record,
                  SymbolOf(reinterpret_cast<const void*>(next.CompletionRoutine)) + " will not be called",
                  caller);
}

} // namespace

IrpRecordPtr VfIrpForward(PDEVICE_OBJECT device, PIRP irp, const void* caller)
{
    IrpRecordPtr record = Live(irp, "IoCallDriver", caller);
    if (!record)
        return nullptr;
    if (device == nullptr || !IoManager::Current().DeviceExists(device)) {
        ReportIrp(Rule::IrpDeviceInvalid, *record, "sent to " + IopDescribeDevice(device), caller);
        return nullptr;
    }
    if (irp->CurrentLocation <= 1)
        Kernel::Current().GetVerifier().ReportFatal(
            Rule::IrpOutOfStack, MajorOf(*record),
            record->Describe() + " has " + std::to_string(irp->StackCount) + " stack locations, all in use",
            caller);
    const UCHAR major = IoGetNextIrpStackLocation(irp)->MajorFunction;
    CheckForwardIrql(*record, major, caller);
    if (irp->CancelRoutine != nullptr)
        ReportIrp(Rule::IrpForwardedCancellable, *record, "passed down with a cancel routine", caller);
    CheckStackCopy(*record, *irp, caller);
    if (caller != nullptr) {
        CheckNoSpinLock(*record, "passed down", caller);
        const Passing passing = PassingOf(*record, *irp);
        CheckOwner(Rule::IrpForwardedWhilePassed, passing.turn.device, *record, caller);
        if (!passing.skipped)
            CheckNeedlessCopy(*record, *irp, caller);
        VfPnpForward(*record, *irp, passing.turn, caller);
    }
    return record;
}

namespace {

// The turn of a driver that gave its stack location away.
std::optional<IrpTurn> SkippedTurn(const IrpRecord& record, int index)
{
    const MutexLock lock(IrpTable::Current().mutex);
    const IrpTurn& turn = record.turns[static_cast<std::size_t>(index)];
    return turn.call != 0 && !turn.completed ? std::optional(turn) : std::nullopt;
}

} // namespace

IrpTicket VfIrpEnter(const IrpRecordPtr& record, PDEVICE_OBJECT device, PIRP irp)
{
    const PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(irp);
    const int index = irp->CurrentLocation;
    if (std::optional<IrpTurn> skipped = SkippedTurn(*record, index))
        VfPowerTurnEnded(*record, *skipped);
    const MutexLock lock(IrpTable::Current().mutex);
    record->in_flight = true;
    record->major = location->MajorFunction;
    record->minor = location->MinorFunction;
    if (record->major == IRP_MJ_DEVICE_CONTROL)
        record->code = location->Parameters.DeviceIoControl.IoControlCode;
    IrpTurn& turn = record->turns[static_cast<std::size_t>(index)];
    // A driver that skipped its location leaves the mark in it.
    const bool forced = turn.forced && turn.call != 0 && !turn.completed;
    turn = IrpTurn{};
    turn.forced = forced;
    turn.call = ++record->calls;
    turn.device = device;
    turn.entry_status = irp->IoStatus.Status;
    turn.entry_information = irp->IoStatus.Information;
    return {record, index, turn.call, location->MajorFunction};
}

namespace {

struct Turn {
    IrpTurn state;
    bool here = false;    // the request has not left this location
    bool current = false; // this call is still the last that entered the location
    bool marked = false;
};

Turn TurnOf(const IrpTicket& ticket)
{
    const MutexLock lock(IrpTable::Current().mutex);
    Turn turn;
    IrpTurn& state = ticket.record->turns[static_cast<std::size_t>(ticket.index)];
    turn.current = state.call == ticket.call;
    turn.state = state;
    turn.marked = state.marked;
    if (!ticket.record->freed && !state.completed && turn.current) {
        // Nobody can have freed it: completion has not come this far.
        const IRP* irp = ticket.record->irp;
        turn.here = irp->CurrentLocation == ticket.index;
        const auto* locations = reinterpret_cast<const IO_STACK_LOCATION*>(irp + 1);
        turn.marked = (locations[ticket.index - 1].Control & SL_PENDING_RETURNED) != 0;
    }
    return turn;
}

void NotePending(const IrpTicket& ticket)
{
    const MutexLock lock(IrpTable::Current().mutex);
    IrpTurn& state = ticket.record->turns[static_cast<std::size_t>(ticket.index)];
    if (state.call == ticket.call)
        state.returned_pending = true;
}

void CheckPendingAnswer(const IrpTicket& ticket, const Turn& turn, const void* routine)
{
    const bool settled = turn.state.completed || turn.here;
    if (settled && !turn.marked)
        ReportIrp(Rule::PendingNotMarked, *ticket.record, SymbolOf(routine) + " returned STATUS_PENDING",
                  routine);
}

void CheckFinalAnswer(const IrpTicket& ticket, const Turn& turn, NTSTATUS status, const void* routine)
{
    const std::string answer = SymbolOf(routine) + " returned " + IopStatusText(status);
    if (turn.state.completed) {
        if (turn.marked)
            ReportIrp(Rule::MarkedNotPending, *ticket.record, answer, routine);
        else if (turn.state.status != status)
            ReportIrp(Rule::StatusMismatch, *ticket.record,
                      answer + ", the request completed with " + IopStatusText(turn.state.status), routine);
    } else if (turn.marked) {
        ReportIrp(Rule::MarkedNotPending, *ticket.record, answer, routine);
    } else {
        ReportIrp(Rule::IrpForgotten, *ticket.record,
                  answer + (turn.here ? "" : " while a driver below still has the request"), routine);
    }
}

bool IsInFlight(const IrpRecord& record)
{
    const MutexLock lock(IrpTable::Current().mutex);
    return record.in_flight;
}

// A request that outlives the routine that had it made would report into what other routines keep on the stack.
// One that is back has reported, although it may not be freed yet.
void CheckReportsToLive(const void* frame, const void* routine)
{
    const auto* self = reinterpret_cast<const Thread*>(KeGetCurrentThread());
    for (const IrpRecordPtr& record : IrpTable::Current().OfThread(KeGetCurrentThread())) {
        const void* place = record->request ? record->request->ReportsTo() : nullptr;
        if (place >= self->stack_low && place < frame && IsInFlight(*record))
            ReportIrp(Rule::IrpStatusOnDeadStack, *record,
                      "its status block was on the stack of " + SymbolOf(routine) + ", which has returned",
                      routine);
    }
}

} // namespace

void VfIrpDispatched(const IrpTicket& ticket, NTSTATUS status, const void* routine)
{
    if (IrpTable::Current().AnyReporting())
        CheckReportsToLive(__builtin_frame_address(0), routine);
    if (status == STATUS_PENDING)
        NotePending(ticket);
    const Turn turn = TurnOf(ticket);
    if (!turn.current || turn.state.forced)
        return; // the driver below was called again by a driver that had kept the request
    if (status == STATUS_PENDING)
        CheckPendingAnswer(ticket, turn, routine);
    else
        CheckFinalAnswer(ticket, turn, status, routine);
}

IrpRecordPtr VfIrpComplete(PIRP irp, const void* caller)
{
    IrpTable& table = IrpTable::Current();
    IrpRecordPtr record = table.Find(irp);
    if (!record) {
        VfReport(Rule::IrpDoubleCompletion, "IoCompleteRequest",
                 table.WasFreed(irp) ? "the request had been completed and freed"
                                     : "the memory was never a request",
                 caller);
        return nullptr;
    }
    if (irp->CurrentLocation > irp->StackCount) {
        // Whoever had the I/O manager build a request may keep it in its completion routine and finish it later.
        if (record->request && record->calls != 0 && !record->in_flight)
            return record;
        const Rule rule = record->calls == 0 ? Rule::IrpNeverSent : Rule::IrpDoubleCompletion;
        ReportIrp(rule, *record, "no driver has it", caller);
        return nullptr;
    }
    const NTSTATUS status = irp->IoStatus.Status;
    if (KeGetCurrentIrql() > DISPATCH_LEVEL)
        ReportIrp(Rule::IrpCompletedAtHighIrql, *record, "IRQL " + std::to_string(KeGetCurrentIrql()),
                  caller);
    if (irp->CancelRoutine != nullptr)
        ReportIrp(Rule::IrpCompletedCancellable, *record, "its cancel routine is still set", caller);
    if (status == STATUS_PENDING)
        ReportIrp(Rule::IrpCompletedPending, *record, "its status is STATUS_PENDING", caller);
    else if (!IsStatus(status))
        ReportIrp(Rule::IrpGarbageStatus, *record, "its status is " + IopStatusText(status), caller);
    if (caller != nullptr)
        CheckNoSpinLock(*record, "completed", caller);
    CheckOwner(Rule::IrpCompletedWhilePassed, irp->Tail.Overlay.CurrentStackLocation->DeviceObject, *record,
               caller);
    CheckRoutineUsed(*record, *irp, caller);
    const bool answers = (irp->Flags & IRP_INPUT_OPERATION) != 0 && (irp->Flags & IRP_BUFFERED_IO) != 0;
    if (record->request && answers && !NT_ERROR(status)) {
        const std::optional<std::size_t> capacity = record->request->Capacity();
        if (capacity && irp->IoStatus.Information > *capacity)
            ReportIrp(Rule::IrpInformationTooLarge, *record,
                      std::to_string(irp->IoStatus.Information) + " bytes into " + std::to_string(*capacity),
                      caller);
    }
    VfPnpComplete(*record, *irp, caller);
    return record;
}

IrpRecordPtr VfIrpCancel(PIRP irp, const void* caller)
{
    IrpRecordPtr record = Live(irp, "IoCancelIrp", caller);
    const MutexLock lock(IrpTable::Current().mutex);
    if (record && record->cancelled_at == 0)
        record->cancelled_at = Kernel::Current().InterruptTime();
    return record;
}

bool VfIrpFree(PIRP irp, const void* caller)
{
    IrpRecordPtr record = Live(irp, "IoFreeIrp", caller);
    if (!record)
        return false;
    if (record->origin == IrpOrigin::System) {
        ReportIrp(Rule::IrpFreeNotOwned, *record, "the I/O manager frees it when it is complete", caller);
        return false;
    }
    if (record->in_flight) {
        ReportIrp(Rule::IrpFreedInUse, *record, "IoFreeIrp", caller);
        return false;
    }
    return true;
}

bool VfIrpReuse(PIRP irp, const void* caller)
{
    IrpRecordPtr record = Live(irp, "IoReuseIrp", caller);
    if (record && record->in_flight)
        ReportIrp(Rule::IrpReuseInUse, *record, "IoReuseIrp", caller);
    return record && !record->in_flight;
}

bool VfIrpInitialize(PIRP irp, const void* caller)
{
    IrpRecordPtr record = IrpTable::Current().Find(irp);
    if (record && record->origin != IrpOrigin::Initialized) {
        ReportIrp(Rule::IrpInitializeAllocated, *record, "IoReuseIrp is the routine for that", caller);
        return false;
    }
    return true;
}

void VfIrpQueuedToThread(PIRP irp)
{
    IrpRecordPtr record = IrpTable::Current().Find(irp);
    const MutexLock lock(IrpTable::Current().mutex);
    record->thread = KeGetCurrentThread();
}

void VfIrpPassed(IrpRecord& record, int index, PIRP irp)
{
    IrpTurn turn;
    {
        const MutexLock lock(IrpTable::Current().mutex);
        IrpTurn& state = record.turns[static_cast<std::size_t>(index)];
        state.completed = true;
        state.marked = irp->PendingReturned != FALSE;
        state.status = irp->IoStatus.Status;
        turn = state;
    }
    if (turn.returned_pending && !turn.marked)
        ReportIrp(Rule::PendingNotMarked, record,
                  IopDescribeDevice(turn.device) + " had returned STATUS_PENDING for it", nullptr);
    VfPowerTurnEnded(record, turn);
}

void VfIrpBack(IrpRecord& record)
{
    const MutexLock lock(IrpTable::Current().mutex);
    record.in_flight = false;
}

void VfIrpForcePending(const IrpTicket& ticket)
{
    IoMarkIrpPending(ticket.record->irp);
    const MutexLock lock(IrpTable::Current().mutex);
    ticket.record->turns[static_cast<std::size_t>(ticket.index)].forced = true;
}

bool VfIrpContinues(const IrpRecordPtr& record, int index, bool pending, const void* routine)
{
    const bool top = static_cast<std::size_t>(index) == record->turns.size();
    bool freed = false;
    bool lost = false;
    {
        const MutexLock lock(IrpTable::Current().mutex);
        freed = record->freed;
        if (!freed && !top && pending) {
            lost = (IoGetCurrentIrpStackLocation(record->irp)->Control & SL_PENDING_RETURNED) == 0;
            IoMarkIrpPending(record->irp);
        }
    }
    if (freed) {
        ReportIrp(Rule::IrpFreedThenContinued, *record, SymbolOf(routine), routine);
        return false;
    }
    if (lost)
        ReportIrp(Rule::PendingLost, *record, SymbolOf(routine) + " did not mark it pending", routine);
    return true;
}

void VfCancelReturned(const void* routine)
{
    IoManager& io = IoManager::Current();
    if (io.CancelLockHeldByCaller())
        VfReport(Rule::CancelLockHeldAtReturn, "cancel routine", SymbolOf(routine) + " still holds it",
                 routine);
}

void VfIrpNotPower(PIRP irp, const void* caller)
{
    IrpRecordPtr record = IrpTable::Current().Find(irp);
    if (record && irp->CurrentLocation > 1 && IoGetNextIrpStackLocation(irp)->MajorFunction == IRP_MJ_POWER)
        ReportIrp(Rule::PowerWrongCall, *record, "PoCallDriver is the routine for that", caller);
}

} // namespace host
