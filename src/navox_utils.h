// The request gate, the pending-I/O count, the few ways in which a request leaves the driver, and the
// discipline of current and queued requests that reads and mask requests share.
#pragma once

#include "navox.h"

// Pending-I/O count ---------------------------------------------------------------------------------------
//
// Every request is counted while it is inside the driver. StopEvent tells that only the bias is left,
// RemoveEvent that the bias is gone too. IRQL <= DISPATCH_LEVEL. The caller's name and line serve only the
// trace.

// The count as a device starts with it: 1, the bias that only removal takes away.
void InitialiseIoCount(DEVICE_EXTENSION* extension);

void IncrementIoCount(DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(),
                      ULONG line = __builtin_LINE());
void DecrementIoCount(DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(),
                      ULONG line = __builtin_LINE());

// Counts a request that the driver itself sends down, unless the device has been removed: then there is
// nothing below any more that could take it. False: not counted.
[[nodiscard]] bool IncrementIoCountUnlessRemoved(DEVICE_EXTENSION* extension,
                                                 const char* caller = __builtin_FUNCTION(),
                                                 ULONG line = __builtin_LINE());

// Counts a request only in STATE_STARTED. False: not counted.
[[nodiscard]] bool IncrementIoCountIfStarted(DEVICE_EXTENSION* extension,
                                             const char* caller = __builtin_FUNCTION(),
                                             ULONG line = __builtin_LINE());

// Whether nothing but the bias is counted.
[[nodiscard]] bool IsNothingPending(DEVICE_EXTENSION* extension);

// Lowers the count without a matching increment. What is signalled still waits for everybody who is inside.
void DecrementIoCountUnpaired(DEVICE_EXTENSION* extension);

// Counts a request for as long as it is in scope.
class PendingIo {
  public:
    explicit PendingIo(DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(),
                       ULONG line = __builtin_LINE())
        : extension_(extension), caller_(caller), line_(line)
    {
        IncrementIoCount(extension_, caller_, line_);
    }
    ~PendingIo() { DecrementIoCount(extension_, caller_, line_); }
    PendingIo(const PendingIo&) = delete;
    PendingIo& operator=(const PendingIo&) = delete;

  private:
    DEVICE_EXTENSION* extension_;
    const char* caller_;
    ULONG line_;
};

void SetPnpState(DEVICE_EXTENSION* extension, ULONG state);
[[nodiscard]] ULONG GetPnpState(DEVICE_EXTENSION* extension);

// To STATE_POWER_QUERIED, unless Plug and Play has other plans with the device.
void SetPowerQueriedIfStarted(DEVICE_EXTENSION* extension);

// Back to STATE_STARTED after a power-up, unless Plug and Play has other plans with the device.
void SetStartedUnlessLeaving(DEVICE_EXTENSION* extension);

// Counts the request, then admits it (STATUS_SUCCESS) or refuses it by the device's state
// (STATUS_DELETE_PENDING, also stored in the request). Either way the caller completes the request and lowers
// the count.
[[nodiscard]] NTSTATUS AdmitRequest(PIRP irp, DEVICE_EXTENSION* extension,
                                    const char* caller = __builtin_FUNCTION(), ULONG line = __builtin_LINE());

// Whether a handle is open. IRQL <= DISPATCH_LEVEL.
[[nodiscard]] bool HasClients(DEVICE_EXTENSION* extension);

// Tells the power manager of the device's state. IRQL <= DISPATCH_LEVEL.
void ReportDevicePower(DEVICE_EXTENSION* extension, DEVICE_POWER_STATE state);

// Requests ------------------------------------------------------------------------------------------------

// Completes the request and returns `status`.
NTSTATUS CompleteRequest(PIRP irp, NTSTATUS status, ULONG_PTR information = 0, CCHAR boost = IO_NO_INCREMENT);

// Passes the request down as it is and returns what the lower driver returned.
NTSTATUS SkipAndForward(DEVICE_EXTENSION* extension, PIRP irp);

// Passes the request down, waits for it and returns its status. The request is the caller's to complete.
// PASSIVE_LEVEL.
NTSTATUS ForwardAndWait(DEVICE_EXTENSION* extension, PIRP irp);

// Takes a request out of a field that several parties go for; null: somebody else has it.
[[nodiscard]] PIRP TakeIrp(PIRP* field);

// Queues ReaderDpc, unless the device has been removed: removal flushes the DPCs once. IRQL <=
// DISPATCH_LEVEL.
void QueueReader(DEVICE_EXTENSION* extension);

// Cancels the reader's transfer if one is outstanding. Its data are not delivered. IRQL <= DISPATCH_LEVEL.
void CancelReader(DEVICE_EXTENSION* extension);

// Current and queued requests -----------------------------------------------------------------------------
//
//     dispatch --> queued ----> current ----> waiting ----> completed
//                    |             |                            ^
//                    | cancelled   | served at once             |
//                    +-------------+----------------------------+
//
// A client serves one read and one mask request at a time; the rest wait behind it. A current request that
// waits carries a word of reference bits. Whoever might complete it holds a bit, and the one who clears the
// last bit does. All of this is guarded by the cancel spin lock.

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
[[nodiscard]] bool IsCancelled(const CLIENT* client, PIRP irp);

// Makes the request current and starts it, or queues it behind those that are there. Returns the request's
// status.
[[nodiscard]] NTSTATUS StartOrQueue(CLIENT* client, PIRP irp, const REQUEST_SLOT& slot);

// Moves the head of the queue into the slot and returns it, or empties the slot. Cancel spin lock held.
PIRP PromoteNext(CLIENT* client, const REQUEST_SLOT& slot);

// Completes `finished`, which is current in the slot, with the status it holds, after the next request has
// taken its place. Returns that next request. IRQL <= DISPATCH_LEVEL.
PIRP NextRequest(CLIENT* client, PIRP finished, const REQUEST_SLOT& slot);

// Clears the reference bit of the slot's current request, takes back every other reference that it can, and
// returns the request when the last one is gone: out of the slot, with its final status, for the caller to
// give to CompleteCounted. Otherwise null: who holds the last reference completes it. Cancel spin lock held.
PIRP ReleaseReference(CLIENT* client, LeaveRoutine* leave, NTSTATUS status, const REQUEST_SLOT& slot,
                      ULONG_PTR reference);

// Completes a request whose status is set and lowers the pending-I/O count. No spin lock held.
void CompleteCounted(DEVICE_EXTENSION* extension, PIRP irp);

// ReleaseReference, then release of the cancel spin lock at `cancelIrql`, then completion and start of the
// next.
void CompleteCurrent(CLIENT* client, LeaveRoutine* leave, KIRQL cancelIrql, NTSTATUS status,
                     const REQUEST_SLOT& slot, ULONG_PTR reference);

// Cancels a request that is still queued. Entered with the cancel spin lock, which it releases.
DRIVER_CANCEL CancelQueued;

// Cancels every request of the client, queued and current, as its own cancel routine would, but for the completion:
// that is left to CompleteAllCounted, when no lock is held. IRQL <= DISPATCH_LEVEL.
void TakeClientRequests(CLIENT* client, LIST_ENTRY* cancelled);

// CompleteCounted for each request of the list.
void CompleteAllCounted(DEVICE_EXTENSION* extension, LIST_ENTRY* requests);

// Time-out timers -----------------------------------------------------------------------------------------
//
// Armed timers and queued completion DPCs are counted per client and per device.

void RaiseTimerCounts(CLIENT* client);
void LowerTimerCounts(CLIENT* client);
void StartTimer(CLIENT* client, KTIMER* timer, LONGLONG dueTime, KDPC* dpc);
bool CancelTimer(CLIENT* client, KTIMER* timer); // true: it was armed
