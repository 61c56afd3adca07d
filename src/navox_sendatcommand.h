// The AT command that makes the module stream.
//
//     reset both bulk pipes --> write the command --> read --> "$..." or OK: done
//                                                     ^ |----> ERROR: again in the reader's next round
//                                                     '-' the echo, or anything else
//
// PASSIVE_LEVEL, in the reader's work item only. No locks.
#pragma once

#include "navox.h"

// The whole exchange. AtCommandPending is cleared when the module streams, and set when it refuses.
[[nodiscard]] NTSTATUS SendAtCommand(DEVICE_EXTENSION* extension);

// One bulk-out transfer. why: the argument is ignored; the one command is always sent.
NTSTATUS WriteAtCommand(DEVICE_EXTENSION* extension, const char* command);

// One bulk-in transfer of at most one packet, copied to `buffer` of `size` bytes, which is zeroed first.
// Waits 7 s.
[[nodiscard]] NTSTATUS ReadAtResponse(DEVICE_EXTENSION* extension, UCHAR* buffer, ULONG size);
