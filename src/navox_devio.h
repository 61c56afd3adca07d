// The continuous reader: one bulk-in transfer at a time, copied to every client.
//
//     first open --1.5 s--> ReaderDpc --> work item --> transfer --> fan-out
//                               ^             |                        |
//                               '-------------+------------------------'
//
//     ReaderCycle:  Idle --DPC--> Running --DPC--> Wanted
//                    ^               |                |  and the DPC is queued, whatever the round says
//                    '- round ends --+----------------'
//
// While AtCommandPending is set the work item sets the module up instead of reading. The cycle ends when the
// last client has closed, a transfer fails or is cancelled, or the device is not started or not in D0.
#pragma once

#include "navox.h"

KDEFERRED_ROUTINE ReaderDpc;

// Queues ReaderDpc, unless the device has been removed: removal flushes the DPCs once.
_IRQL_requires_max_(DISPATCH_LEVEL) void QueueReader(DEVICE_EXTENSION* extension);

// Cancels the reader's transfer if one is outstanding. Its data are not delivered.
_IRQL_requires_max_(DISPATCH_LEVEL) void CancelReader(DEVICE_EXTENSION* extension);

// Copies a transfer to every client. `bytes` has at least one byte, even if `length` is 0.
_IRQL_requires_(PASSIVE_LEVEL) void FanOut(DEVICE_EXTENSION* extension, ULONG length, const UCHAR* bytes);
