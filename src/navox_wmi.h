// The standard serial-port WMI blocks: name, settings, properties, counters. Read-only; no events.
#pragma once

#include "navox.h"

DRIVER_DISPATCH SystemControl;

// Sets the blocks to their initial values and registers them. PASSIVE_LEVEL.
[[nodiscard]] NTSTATUS WmiRegister(DEVICE_EXTENSION* extension);
