// The request gate, the pending-I/O count, and the few ways in which a request leaves the driver.
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
_IRQL_requires_max_(DISPATCH_LEVEL) void InitialiseIoCount(DEVICE_EXTENSION* extension);

_IRQL_requires_max_(DISPATCH_LEVEL) void IncrementIoCount(DEVICE_EXTENSION* extension,
                                                          const char* caller = __builtin_FUNCTION(),
                                                          ULONG line = __builtin_LINE());
_IRQL_requires_max_(DISPATCH_LEVEL) void DecrementIoCount(DEVICE_EXTENSION* extension,
                                                          const char* caller = __builtin_FUNCTION(),
                                                          ULONG line = __builtin_LINE());

// Counts a request that the driver itself sends down, unless the device has been removed: then there is
// nothing below any more that could take it. False: not counted.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) bool IncrementIoCountUnlessRemoved(
    DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(), ULONG line = __builtin_LINE());

// Counts a request only in STATE_STARTED. False: not counted.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) bool IncrementIoCountIfStarted(
    DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(), ULONG line = __builtin_LINE());

// Whether nothing but the bias is counted.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) bool IsNothingPending(DEVICE_EXTENSION* extension);

// Lowers the count without a matching increment. What is signalled still waits for everybody who is inside.
_IRQL_requires_max_(DISPATCH_LEVEL) void DecrementIoCountUnpaired(DEVICE_EXTENSION* extension);

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

_IRQL_requires_max_(DISPATCH_LEVEL) void SetPnpState(DEVICE_EXTENSION* extension, ULONG state);
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) ULONG GetPnpState(DEVICE_EXTENSION* extension);

// To STATE_POWER_QUERIED, unless Plug and Play has other plans with the device.
_IRQL_requires_max_(DISPATCH_LEVEL) void SetPowerQueriedIfStarted(DEVICE_EXTENSION* extension);

// Back to STATE_STARTED after a power-up, unless Plug and Play has other plans with the device.
_IRQL_requires_max_(DISPATCH_LEVEL) void SetStartedUnlessLeaving(DEVICE_EXTENSION* extension);

//     NEVER_STARTED, STARTED, REMOVED                                              admitted
//     STOP_PENDING, STOPPED, REMOVE_PENDING, SURPRISE_REMOVED, POWER_QUERIED       refused
//
// Counts the request, then admits it (STATUS_SUCCESS) or refuses it by the device's state
// (STATUS_DELETE_PENDING, also stored in the request). Either way the caller completes the request and lowers
// the count.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    AdmitRequest(PIRP irp, DEVICE_EXTENSION* extension, const char* caller = __builtin_FUNCTION(),
                 ULONG line = __builtin_LINE());

// Whether a handle is open.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) bool HasClients(DEVICE_EXTENSION* extension);

// Tells the power manager of the device's state.
_IRQL_requires_max_(DISPATCH_LEVEL) void ReportDevicePower(DEVICE_EXTENSION* extension,
                                                           DEVICE_POWER_STATE state);

// Requests ------------------------------------------------------------------------------------------------

// Completes the request and returns `status`.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    CompleteRequest(PIRP irp, NTSTATUS status, ULONG_PTR information = 0, CCHAR boost = IO_NO_INCREMENT);

// Completes the request, lowers the count and returns `status`.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    CompleteAndUncount(DEVICE_EXTENSION* extension, PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

// Completes a request whose status is set and lowers the pending-I/O count. No spin lock held.
_IRQL_requires_max_(DISPATCH_LEVEL) void CompleteCounted(DEVICE_EXTENSION* extension, PIRP irp);

// Passes the request down as it is and returns what the lower driver returned.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS SkipAndForward(DEVICE_EXTENSION* extension, PIRP irp);

// Passes the request down, waits for it and returns its status. The request is the caller's to complete.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS ForwardAndWait(DEVICE_EXTENSION* extension, PIRP irp);

// Takes a request out of a field that several parties go for; null: somebody else has it.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) PIRP TakeIrp(PIRP* field);
