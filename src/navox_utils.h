// The request gate, the pending-I/O count, and the few ways in which a request leaves the driver. IRQL <=
// DISPATCH_LEVEL, where nothing else is said.
#pragma once

#include "navox.h"

// Pending-I/O count ---------------------------------------------------------------------------------------
//
//     1 --a request enters--> 2 ... n --all have left--> 1 --removal, with its own count--> 0
//     StopEvent set           clear                      set                                RemoveEvent set
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

// The same, in STATE_STARTED only; false: not counted.
class PendingIoIfStarted {
  public:
    explicit PendingIoIfStarted(DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(),
                                ULONG line = __builtin_LINE())
        : extension_(IncrementIoCountIfStarted(extension, caller, line) ? extension : nullptr),
          caller_(caller), line_(line)
    {}
    ~PendingIoIfStarted()
    {
        if (extension_ != nullptr)
            DecrementIoCount(extension_, caller_, line_);
    }
    PendingIoIfStarted(const PendingIoIfStarted&) = delete;
    PendingIoIfStarted& operator=(const PendingIoIfStarted&) = delete;

    explicit operator bool() const { return extension_ != nullptr; }

  private:
    DEVICE_EXTENSION* extension_; // null: not counted
    const char* caller_;
    ULONG line_;
};

void SetPnpState(DEVICE_EXTENSION* extension, ULONG state);
[[nodiscard]] ULONG GetPnpState(DEVICE_EXTENSION* extension);

// To STATE_POWER_QUERIED, unless Plug and Play has other plans with the device.
void SetPowerQueriedIfStarted(DEVICE_EXTENSION* extension);

// Back to STATE_STARTED after a power-up, unless Plug and Play has other plans with the device.
void SetStartedUnlessLeaving(DEVICE_EXTENSION* extension);

//     NEVER_STARTED, STARTED, REMOVED                                              admitted
//     STOP_PENDING, STOPPED, REMOVE_PENDING, SURPRISE_REMOVED, POWER_QUERIED       refused
//
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

// Completes the request, lowers the count and returns `status`.
NTSTATUS CompleteAndUncount(DEVICE_EXTENSION* extension, PIRP irp, NTSTATUS status,
                            ULONG_PTR information = 0);

// Completes a request whose status is set and lowers the pending-I/O count. No spin lock held.
void CompleteCounted(DEVICE_EXTENSION* extension, PIRP irp);

// Passes the request down as it is and returns what the lower driver returned.
NTSTATUS SkipAndForward(DEVICE_EXTENSION* extension, PIRP irp);

// Passes the request down, waits for it and returns its status. The request is the caller's to complete.
// PASSIVE_LEVEL.
NTSTATUS ForwardAndWait(DEVICE_EXTENSION* extension, PIRP irp);

// Takes a request out of a field that several parties go for; null: somebody else has it.
[[nodiscard]] PIRP TakeIrp(PIRP* field);
