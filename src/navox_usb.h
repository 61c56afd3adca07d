// The USB bus beneath the driver: configuration, pipes, and the one way in which a URB is sent and waited
// for. Everything but the two builders blocks, and returns what the bus answered, or STATUS_INSUFFICIENT_RESOURCES when
// memory is short, or STATUS_DELETE_PENDING once the device was removed.
//
//     unconfigured --descriptors read, interfaces selected--> configured: three pipes --removal--> refuses
//           ^  |                                                 |
//           |  '--refused, or not the module's: start fails      '--start after a stop: once more
//           '--arrival
//
//     a URB: sent --answered----------------------------> status of the bus
//              |---SubmitUrb, late----> cancelled, waits -> STATUS_IO_TIMEOUT
//              '---SubmitUrbOrAbort, late -> bulk-in aborted, waits -> status of the bus
#pragma once

#include "navox.h"

// Sends the URB and waits for it, at most `timeout` (100 ns, relative; null: without limit). A request that
// takes too long is cancelled, and STATUS_IO_TIMEOUT returned when it has come back.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    SubmitUrb(DEVICE_EXTENSION* extension, PURB urb, PLARGE_INTEGER timeout = nullptr);

// Reads the descriptors, selects the data and the communication interface, and records the three pipes.
// STATUS_DEVICE_CONFIGURATION_ERROR: they are not the module's. why: a missing interface counts as a lack of memory.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS ConfigureDevice(DEVICE_EXTENSION* extension);

// Clears a halted endpoint and its data toggle.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS ResetPipe(PDEVICE_OBJECT device, const USBD_PIPE_INFORMATION& pipe);

// Brings back every transfer of the bulk-in pipe, one of which the caller waits for. It goes down even when removal has
// begun.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS AbortBulkInPipe(DEVICE_EXTENSION* extension);

// Reads and discards what the pipe holds, for at most 30 ms.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    DrainPipe(DEVICE_EXTENSION* extension, const USBD_PIPE_INFORMATION& pipe);

// A bulk or interrupt transfer. The direction follows from the pipe; a short transfer is no error.
_IRQL_requires_max_(DISPATCH_LEVEL) void BuildTransferUrb(PURB urb, const USBD_PIPE_INFORMATION& pipe,
                                                          PVOID buffer, ULONG length);

// Makes the request's next stack location one that submits the URB.
_IRQL_requires_max_(DISPATCH_LEVEL) void PrepareUrbIrp(PIRP irp, PURB urb);

// Sends the URB as part of an exchange with the module, without a completion routine of ours. When it takes
// longer than `abortAfter` (100 ns, relative; null: never), the bulk-in pipe is aborted and the wait goes on.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    SubmitUrbOrAbort(DEVICE_EXTENSION* extension, PURB urb, PLARGE_INTEGER abortAfter = nullptr);
