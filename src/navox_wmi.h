// The standard serial-port WMI blocks: name, settings, properties, counters. Read-only; no events.
#pragma once

#include "navox.h"

DRIVER_DISPATCH SystemControl;

// Sets the blocks to their initial values and registers them. Returns what IoWMIRegistrationControl did.
[[nodiscard]] _IRQL_requires_(PASSIVE_LEVEL) NTSTATUS WmiRegister(DEVICE_EXTENSION* extension);
