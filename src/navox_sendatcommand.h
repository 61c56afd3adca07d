// The AT command that makes the module stream.
//
//     reset both bulk pipes --> write the command --> read --> "$..." or OK: done
//                                                     ^ |----> ERROR: again in the reader's next round
//                                                     '-' the echo, or anything else
//
// In the reader's work item only. No locks. Errors: those of the bus; STATUS_DELETE_PENDING when the device is not
// started; STATUS_INSUFFICIENT_RESOURCES.
#pragma once

#include "navox.h"

// The whole exchange. AtCommandPending is cleared when the module streams, and set when it refuses
// (STATUS_UNSUCCESSFUL).
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SendAtCommand(DEVICE_EXTENSION* extension);

// One bulk-out transfer. why: the argument is ignored; the one command is always sent.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS WriteAtCommand(DEVICE_EXTENSION* extension, const char* command);

// One bulk-in transfer of at most one packet, copied to `buffer` of `size` bytes, which is zeroed first.
// What has not come within 7 s is aborted. STATUS_BUFFER_OVERFLOW: more came than there is room for.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    ReadAtResponse(DEVICE_EXTENSION* extension, UCHAR* buffer, ULONG size);
