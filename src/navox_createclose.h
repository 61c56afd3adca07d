// Open, cleanup, close, and the life of a client.
//
//     no client --first open--> first client --open--> several clients
//         ^   reader armed (1.5 s), line set up          |  |
//         |                                     last close  close
//         '---- reader stopped, line released <----------'
//
// A client lives from its open to its close; cleanup empties its queues.
#pragma once

#include "navox.h"

DRIVER_DISPATCH CreateDispatch;
DRIVER_DISPATCH CleanupDispatch;
DRIVER_DISPATCH CloseDispatch;

// Allocates a client whose ring holds one empty fix sentence. STATUS_INSUFFICIENT_RESOURCES when memory is
// short.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    CreateClient(CLIENT** client, DEVICE_EXTENSION* extension);

// The number of open clients. ClientListLock held.
_IRQL_requires_(DISPATCH_LEVEL) ULONG CountClients(DEVICE_EXTENSION* extension)
    _Requires_lock_held_(extension->ClientListLock);

// Stores the number of open clients as "OpenHandles" in the hardware key. Returns the registry's status.
_IRQL_requires_(PASSIVE_LEVEL) NTSTATUS WriteOpenHandles(DEVICE_EXTENSION* extension, ULONG count);

// Cancels the client's requests, queued and current.
_IRQL_requires_(PASSIVE_LEVEL) void CancelClientRequests(DEVICE_EXTENSION* extension, CLIENT* client);

// Cancels the requests of every client, and every one that would begin to wait from now on.
_IRQL_requires_(PASSIVE_LEVEL) void CancelAllClientRequests(DEVICE_EXTENSION* extension);
