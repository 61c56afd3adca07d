// Reads under the serial time-outs.
//
//     served from the ring --------------------------------------------------------> completed
//     still needs bytes --> direct fill --+-- buffer filled: ReadCompletionDpc ----> STATUS_SUCCESS
//                                         +-- TotalTimerDpc, IntervalTimerDpc -----> STATUS_TIMEOUT
//                                         '-- cancelled ---------------------------> STATUS_CANCELLED
#pragma once

#include "navox.h"

// CLIENT::CountOnLastRead holds one of these once a completion is under way; a racing interval check goes by
// it.
inline constexpr ULONG kReadCancelled = 0xFFFFFFFF;
inline constexpr ULONG kReadTimedOut = 0xFFFFFFFE;
inline constexpr ULONG kReadFilled = 0xFFFFFFFD;

DRIVER_DISPATCH ReadDispatch;
KDEFERRED_ROUTINE ReadCompletionDpc;
KDEFERRED_ROUTINE TotalTimerDpc;
KDEFERRED_ROUTINE IntervalTimerDpc;

// Whether SERIAL_ERROR_ABORT in the device's handshake word cancels this request.
_IRQL_requires_max_(DISPATCH_LEVEL) bool IsErrorAborted(const DEVICE_EXTENSION* extension, PIRP irp);
