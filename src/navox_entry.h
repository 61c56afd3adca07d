// Load, arrival of a device, unload: what the driver is made of.
//
//     not loaded --DriverEntry--> loaded --AddDevice--> a device --REMOVE_DEVICE--> gone (navox_pnp)
//         ^                       |    ^                   |
//         '-----DriverUnload------'    '--a step fails-----'
//                                         all undone, in reverse order
#pragma once

#include "navox.h"

extern "C" DRIVER_INITIALIZE DriverEntry;
DRIVER_ADD_DEVICE AddDevice;
DRIVER_UNLOAD DriverUnload;

// A 32-bit setting of the device's driver key. Absent, too large or unreadable: 0 and FALSE.
_IRQL_requires_(PASSIVE_LEVEL) BOOLEAN
    ReadDeviceSetting(DEVICE_EXTENSION* extension, PCWSTR valueName, ULONG* value);

// Whether the system is at least of this NTDDI version.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) bool IsOsVersionAtLeast(ULONG version);
