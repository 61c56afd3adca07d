// Device controls: the serial controls, which keep books and send nothing to the module, and the way to the
// private ones.
#pragma once

#include "navox.h"

DRIVER_DISPATCH DeviceControl;
