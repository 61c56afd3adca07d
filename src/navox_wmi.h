// The standard serial-port WMI blocks: name, settings, properties, counters. Read-only; no events.
//
//     unregistered --first start--> registered --removal--> deregistered, for good
//          |                            |
//          '--refused: the start fails  |--query--> the block, or STATUS_WMI_GUID_NOT_FOUND
//                                       |--set----> STATUS_INVALID_DEVICE_REQUEST, or the same
//                                       '--not for this provider--> passed down
#pragma once

#include "navox.h"

DRIVER_DISPATCH SystemControl;

// Sets the blocks to their initial values and registers them. Returns what IoWMIRegistrationControl did.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS WmiRegister(DEVICE_EXTENSION* extension);
