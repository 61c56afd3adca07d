// The port's names: PortName of the hardware key, the \DosDevices link, the SERIALCOMM value.
//
//     unnamed --CreatePortName--> link --> SERIALCOMM value: named --RemovePortName--> unnamed
//        ^                          |            |                   (the link that PortName names now)
//        '----each step undone------'------------'
#pragma once

#include "navox.h"

// Names the port: link, SERIALCOMM value, port number. On failure nothing is left behind.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS CreatePortName(DEVICE_EXTENSION* extension);

// Undoes the link, the copy of the name and the SERIALCOMM value.
_IRQL_requires_(PASSIVE_LEVEL) void RemovePortName(DEVICE_EXTENSION* extension);

// Frees the names' buffers, after RemovePortName if `undo` is set.
_IRQL_requires_(PASSIVE_LEVEL) void ReleasePortNames(PDEVICE_OBJECT device, bool undo);

// Reads the port name from the hardware key ("PortName", or else "Identifier"). `portName` is a
// zero-terminated block with the tag kTagQueriedName; `linkName` gets a buffer with the tag kTagLinkName. Fails as the
// registry does, with STATUS_BUFFER_TOO_SMALL for a link that is too long, or with STATUS_INSUFFICIENT_RESOURCES.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS
    GetPortName(DEVICE_EXTENSION* extension, HANDLE hardwareKey, UNICODE_STRING* linkName, PWSTR* portName);
