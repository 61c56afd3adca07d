// Serial and private device controls, by the headers of either world.
#pragma once

#ifdef _WIN32
#include <windows.h>
#include <winioctl.h>
using PHYSICAL_ADDRESS = LARGE_INTEGER; // ntddser.h expects a driver's headers
#endif
#include <ntddser.h>

#include "include/navox/gps_ioctl.h"
