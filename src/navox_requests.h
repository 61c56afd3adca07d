// The discipline of current and queued requests that reads and mask requests share, and the timers that end a
// current read.
//
//     dispatch --> queued ----> current ----> waiting ----> completed
//                    |             |                            ^
//                    | cancelled   | served at once             |
//                    +-------------+----------------------------+
//
// A client serves one read and one mask request at a time; the rest wait behind it. A current request that
// waits carries a word of reference bits. Whoever might complete it holds a bit, and the one who clears the
// last bit does. All of this is guarded by the cancel spin lock. IRQL <= DISPATCH_LEVEL.
#pragma once

#include "navox.h"

inline constexpr ULONG_PTR kReferenceReader = 0x1;
inline constexpr ULONG_PTR kReferenceCancel = 0x2;
inline constexpr ULONG_PTR kReferenceTotalTimer = 0x4;
inline constexpr ULONG_PTR kReferenceIntervalTimer = 0x8;

// Reads and buffered controls leave the fourth argument of the stack location free.
inline ULONG_PTR References(PIRP irp)
{
    return reinterpret_cast<ULONG_PTR>(IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument4);
}
inline void SetReferences(PIRP irp, ULONG_PTR references)
{
    IoGetCurrentIrpStackLocation(irp)->Parameters.Others.Argument4 = reinterpret_cast<PVOID>(references);
}
inline void AddReference(PIRP irp, ULONG_PTR reference)
{
    SetReferences(irp, References(irp) | reference);
}
inline void DropReference(PIRP irp, ULONG_PTR reference)
{
    SetReferences(irp, References(irp) & ~reference);
}

// Takes the request away from the fan-out. Runs under the cancel spin lock and, inside it, the client lock.
using LeaveRoutine = void(CLIENT* client, PIRP irp);

// A place for a current request, and what goes with it.
struct REQUEST_SLOT {
    PIRP CLIENT::*Current;
    LIST_ENTRY CLIENT::*Queue;         // none for the wait: mask requests queue behind CurrentMaskIrp
    bool HasTimers;                    // the client's IntervalTimer and TotalTimer belong to it
    LeaveRoutine* Leave;               // what a cancel does first; none for requests that never wait
    NTSTATUS (*Start)(CLIENT* client); // serves the current request and those behind it
};
extern const REQUEST_SLOT ReadSlot; // navox_read
extern const REQUEST_SLOT MaskSlot; // navox_write
extern const REQUEST_SLOT WaitSlot; // navox_write

// Whether the request must not begin to wait: it was cancelled, or the device is going. Cancel spin lock
// held.
[[nodiscard]] _IRQL_requires_(DISPATCH_LEVEL) bool IsCancelled(const CLIENT* client, PIRP irp);

// Makes the request current and starts it, or queues it behind those that are there. Returns the request's
// status.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    StartOrQueue(CLIENT* client, PIRP irp, const REQUEST_SLOT& slot);

// Moves the head of the queue into the slot and returns it, or empties the slot. Cancel spin lock held.
_IRQL_requires_(DISPATCH_LEVEL) PIRP PromoteNext(CLIENT* client, const REQUEST_SLOT& slot);

// Completes `finished`, which is current in the slot, with the status it holds, after the next request has
// taken its place. Returns that next request.
_IRQL_requires_max_(DISPATCH_LEVEL) PIRP NextRequest(CLIENT* client, PIRP finished, const REQUEST_SLOT& slot);

// Clears the reference bit of the slot's current request, takes back every other reference that it can, and
// returns the request when the last one is gone: out of the slot, with its final status, for the caller to
// give to CompleteCounted. Otherwise null: who holds the last reference completes it. Cancel spin lock held.
_IRQL_requires_(DISPATCH_LEVEL) PIRP ReleaseReference(CLIENT* client, LeaveRoutine* leave, NTSTATUS status,
                                                      const REQUEST_SLOT& slot, ULONG_PTR reference);

// ReleaseReference, then release of the cancel spin lock at `cancelIrql`, then completion and start of the
// next.
_IRQL_requires_(DISPATCH_LEVEL) void CompleteCurrent(CLIENT* client, LeaveRoutine* leave, KIRQL cancelIrql,
                                                     NTSTATUS status, const REQUEST_SLOT& slot,
                                                     ULONG_PTR reference);

// Cancels a request that is still queued. Entered with the cancel spin lock, which it releases.
DRIVER_CANCEL CancelQueued;

// Cancels every request of the client, queued and current, as its own cancel routine would, but for the completion:
// that is left to CompleteAllCounted, when no lock is held.
_IRQL_requires_max_(DISPATCH_LEVEL) void TakeClientRequests(CLIENT* client, LIST_ENTRY* cancelled);

// CompleteCounted for each request of the list.
_IRQL_requires_max_(DISPATCH_LEVEL) void CompleteAllCounted(DEVICE_EXTENSION* extension,
                                                            LIST_ENTRY* requests);

// Time-out timers -----------------------------------------------------------------------------------------
//
// Armed timers and queued completion DPCs are counted per client and per device.

_IRQL_requires_max_(DISPATCH_LEVEL) void RaiseTimerCounts(CLIENT* client);
_IRQL_requires_max_(DISPATCH_LEVEL) void LowerTimerCounts(CLIENT* client);
_IRQL_requires_max_(DISPATCH_LEVEL) void StartTimer(CLIENT* client, KTIMER* timer, LONGLONG dueTime,
                                                    KDPC* dpc);
_IRQL_requires_max_(DISPATCH_LEVEL) bool CancelTimer(CLIENT* client, KTIMER* timer); // true: it was armed
