// Selective suspend: lets the hub suspend the module while nobody uses it.
//
//     off --StartIdleMonitor--> armed (a look every 5 s) --idle--> request at the hub
//                                 ^                                     |          |
//                                 |                                     |      callback
//                                 |                                     |          v
//                                 '-- completed or cancelled: back to D0 <-- IdlePowerState
//
// The idle request has two parties, the completion routine and a canceller. IdleIrp is taken by exchange;
// IdleIrpRefs starts at 2. Who finds it dropping from 1 to 0 frees the request, or the completion does if no
// canceller took it.
#pragma once

#include "navox.h"

// Sets up the objects of the idle monitor, at device creation, only when EnableSelectiveSuspend is set: nothing here
// touches them otherwise.
_IRQL_requires_(PASSIVE_LEVEL) void InitialiseIdleMonitor(DEVICE_EXTENSION* extension);

// Arms the idle check.
_IRQL_requires_(PASSIVE_LEVEL) void StartIdleMonitor(DEVICE_EXTENSION* extension);

// Disarms it and waits for a check and a request that are under way.
_IRQL_requires_(PASSIVE_LEVEL) void StopIdleMonitor(DEVICE_EXTENSION* extension);

// Takes the idle request back, unless the device is as idle as before.
_IRQL_requires_max_(DISPATCH_LEVEL) void CancelIdleRequest(DEVICE_EXTENSION* extension);

// After CancelIdleRequest: waits until a device that was suspended, or on its way there, is back in D0 (or cannot
// come). The caller is counted as pending I/O, so that no further request is sent meanwhile.
_IRQL_requires_(PASSIVE_LEVEL) void WaitUntilAwake(DEVICE_EXTENSION* extension);

// Asks the hub to suspend the module: STATUS_PENDING. STATUS_POWER_STATE_INVALID, STATUS_DEVICE_NOT_CONNECTED: it is not
// in D0, not started. STATUS_DEVICE_BUSY: an earlier request is not through. STATUS_UNSUCCESSFUL: it is in use.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS SubmitIdleRequest(DEVICE_EXTENSION* extension);
