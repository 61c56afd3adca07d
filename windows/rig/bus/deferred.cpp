// Spin locks, cancellation, the DPC queue and the timers.
//
//   KeSetTimer ──▶ timer list ──timer thread, when due──▶ DPC queue ──DPC thread, at DISPATCH_LEVEL──▶ routine
//
// All lists are under one lock, which is held for a few instructions only.
#include "windows/rig/bus/bus.h"
#include "windows/rig/bus/replacements.h"

extern "C" NTSTATUS NTAPI ZwYieldExecution(); // missing from the headers

namespace {

// Another thread may need the processor to let go of the lock.
void Spin(PKSPIN_LOCK lock)
{
    for (ULONG turn = 1; InterlockedCompareExchangePointer(reinterpret_cast<PVOID*>(lock),
                                                           reinterpret_cast<PVOID>(1), nullptr) != nullptr;
         ++turn) {
        if (turn % 64 == 0)
            ZwYieldExecution();
        else
            YieldProcessor();
    }
}

void Unspin(PKSPIN_LOCK lock)
{
    InterlockedExchangePointer(reinterpret_cast<PVOID*>(lock), nullptr);
}

class Guard {
  public:
    explicit Guard(KSPIN_LOCK& lock) : lock_(&lock) { Spin(lock_); }
    ~Guard() { Unspin(lock_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    PKSPIN_LOCK lock_;
};

struct Deferred {
    KSPIN_LOCK cancel_lock; // the system's
    KSPIN_LOCK lock;        // of this file; the rest is under it
    LIST_ENTRY dpcs;        // by DpcListEntry; DpcData is set while a DPC is in it
    LIST_ENTRY timers;      // by TimerListEntry; Header.Inserted is set while a timer is in it
    KEVENT dpc_event;
    KEVENT timer_event;
    KEVENT idle; // signalled while no DPC is queued or runs
};

constinit Deferred g_deferred = {};

bool QueueLocked(PKDPC dpc, PVOID argument1, PVOID argument2)
{
    if (dpc->DpcData != nullptr)
        return false;
    dpc->DpcData = &g_deferred;
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    InsertTailList(&g_deferred.dpcs, reinterpret_cast<PLIST_ENTRY>(&dpc->DpcListEntry));
    KeClearEvent(&g_deferred.idle);
    return true;
}

PKDPC TakeDpc(KDPC& copy)
{
    const Guard guard(g_deferred.lock);
    if (IsListEmpty(&g_deferred.dpcs)) {
        KeSetEvent(&g_deferred.idle, IO_NO_INCREMENT, FALSE);
        return nullptr;
    }
    const PKDPC dpc = CONTAINING_RECORD(RemoveHeadList(&g_deferred.dpcs), KDPC, DpcListEntry);
    dpc->DpcData = nullptr;
    copy = *dpc; // the routine may free it, or queue it again
    return dpc;
}

void NTAPI RunDpcs(PVOID)
{
    for (;;) {
        KDPC copy;
        const PKDPC dpc = TakeDpc(copy);
        if (dpc == nullptr) {
            KeWaitForSingleObject(&g_deferred.dpc_event, Executive, KernelMode, FALSE, nullptr);
            continue;
        }
        RigSetIrql(DISPATCH_LEVEL);
        copy.DeferredRoutine(dpc, copy.DeferredContext, copy.SystemArgument1, copy.SystemArgument2);
        if (RigSetIrql(PASSIVE_LEVEL) != DISPATCH_LEVEL)
            RigReport("DPC routine %p left the level changed", reinterpret_cast<void*>(copy.DeferredRoutine));
    }
}

bool DisarmLocked(PKTIMER timer)
{
    if (timer->Header.Inserted == 0)
        return false;
    timer->Header.Inserted = 0;
    RemoveEntryList(&timer->TimerListEntry);
    return true;
}

void ArmLocked(PKTIMER timer, LONGLONG due)
{
    timer->DueTime.QuadPart = static_cast<ULONGLONG>(due);
    timer->Header.Inserted = 1;
    InsertTailList(&g_deferred.timers, &timer->TimerListEntry);
}

// Fires what is due. Returns when the next timer is.
LONGLONG FireTimers(bool& queued)
{
    const Guard guard(g_deferred.lock);
    const LONGLONG now = RigNow();
    LONGLONG next = now + 10'000'000;
    for (PLIST_ENTRY entry = g_deferred.timers.Flink; entry != &g_deferred.timers;) {
        const PKTIMER timer = CONTAINING_RECORD(entry, KTIMER, TimerListEntry);
        entry = entry->Flink;
        auto due = static_cast<LONGLONG>(timer->DueTime.QuadPart);
        if (due <= now) {
            DisarmLocked(timer);
            timer->Header.SignalState = 1;
            if (timer->Dpc != nullptr)
                queued |= QueueLocked(timer->Dpc, nullptr, nullptr);
            if (timer->Period == 0)
                continue;
            due += static_cast<LONGLONG>(timer->Period) * 10'000;
            ArmLocked(timer, due);
        }
        next = std::min(next, due);
    }
    return next;
}

void NTAPI RunTimers(PVOID)
{
    for (;;) {
        bool queued = false;
        LARGE_INTEGER timeout;
        timeout.QuadPart = FireTimers(queued);
        if (queued)
            KeSetEvent(&g_deferred.dpc_event, IO_NO_INCREMENT, FALSE);
        KeWaitForSingleObject(&g_deferred.timer_event, Executive, KernelMode, FALSE, &timeout);
    }
}

} // namespace

NTSTATUS StartDeferred()
{
    InitializeListHead(&g_deferred.dpcs);
    InitializeListHead(&g_deferred.timers);
    KeInitializeEvent(&g_deferred.dpc_event, SynchronizationEvent, FALSE);
    KeInitializeEvent(&g_deferred.timer_event, SynchronizationEvent, FALSE);
    KeInitializeEvent(&g_deferred.idle, NotificationEvent, TRUE);
    const NTSTATUS status = StartThread(RunDpcs, nullptr);
    return NT_SUCCESS(status) ? StartThread(RunTimers, nullptr) : status;
}

KIRQL NTAPI RigAcquireSpinLockRaiseToDpc(PKSPIN_LOCK lock)
{
    const KIRQL before = RigSetIrql(DISPATCH_LEVEL);
    Spin(lock);
    return before;
}

VOID NTAPI RigReleaseSpinLock(PKSPIN_LOCK lock, KIRQL irql)
{
    Unspin(lock);
    RigSetIrql(irql);
}

VOID NTAPI RigAcquireSpinLockAtDpcLevel(PKSPIN_LOCK lock)
{
    Spin(lock);
}

VOID NTAPI RigReleaseSpinLockFromDpcLevel(PKSPIN_LOCK lock)
{
    Unspin(lock);
}

VOID NTAPI RigAcquireCancelSpinLock(PKIRQL irql)
{
    *irql = RigAcquireSpinLockRaiseToDpc(&g_deferred.cancel_lock);
}

VOID NTAPI RigReleaseCancelSpinLock(KIRQL irql)
{
    RigReleaseSpinLock(&g_deferred.cancel_lock, irql);
}

BOOLEAN NTAPI RigCancelIrp(PIRP irp)
{
    KIRQL irql;
    RigAcquireCancelSpinLock(&irql);
    irp->Cancel = TRUE;
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(irp, nullptr);
    if (routine == nullptr) {
        RigReleaseCancelSpinLock(irql);
        return FALSE;
    }
    irp->CancelIrql = irql;
    routine(IoGetCurrentIrpStackLocation(irp)->DeviceObject, irp);
    return TRUE;
}

VOID NTAPI RigInitializeDpc(PRKDPC dpc, PKDEFERRED_ROUTINE routine, PVOID context)
{
    RtlZeroMemory(dpc, sizeof *dpc);
    dpc->Importance = MediumImportance;
    dpc->DeferredRoutine = routine;
    dpc->DeferredContext = context;
}

BOOLEAN NTAPI RigInsertQueueDpc(PRKDPC dpc, PVOID argument1, PVOID argument2)
{
    {
        const Guard guard(g_deferred.lock);
        if (!QueueLocked(dpc, argument1, argument2))
            return FALSE;
    }
    KeSetEvent(&g_deferred.dpc_event, IO_NO_INCREMENT, FALSE);
    return TRUE;
}

BOOLEAN NTAPI RigRemoveQueueDpc(PRKDPC dpc)
{
    const Guard guard(g_deferred.lock);
    if (dpc->DpcData == nullptr)
        return FALSE;
    dpc->DpcData = nullptr;
    RemoveEntryList(reinterpret_cast<PLIST_ENTRY>(&dpc->DpcListEntry));
    return TRUE;
}

// The DPC thread signals that it is through when it next finds the queue empty, even if it was told to look by nobody.
VOID NTAPI RigFlushQueuedDpcs()
{
    KeSetEvent(&g_deferred.dpc_event, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(&g_deferred.idle, Executive, KernelMode, FALSE, nullptr);
}

BOOLEAN NTAPI RigSetTimerEx(PKTIMER timer, LARGE_INTEGER due, LONG period, PKDPC dpc)
{
    BOOLEAN armed = FALSE;
    {
        const Guard guard(g_deferred.lock);
        armed = DisarmLocked(timer) ? TRUE : FALSE;
        timer->Header.SignalState = 0;
        timer->Dpc = dpc;
        timer->Period = static_cast<ULONG>(period);
        ArmLocked(timer, due.QuadPart < 0 ? RigNow() - due.QuadPart : due.QuadPart);
    }
    KeSetEvent(&g_deferred.timer_event, IO_NO_INCREMENT, FALSE);
    return armed;
}

BOOLEAN NTAPI RigSetTimer(PKTIMER timer, LARGE_INTEGER due, PKDPC dpc)
{
    return RigSetTimerEx(timer, due, 0, dpc);
}

BOOLEAN NTAPI RigCancelTimer(PKTIMER timer)
{
    const Guard guard(g_deferred.lock);
    return DisarmLocked(timer) ? TRUE : FALSE;
}
