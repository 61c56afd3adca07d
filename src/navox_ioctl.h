// Device controls: the serial controls, which keep books and send nothing to the module, and the way to the
// private ones.
//
//     request --private control-----------------------------> served at once (navox_gps)
//        '--serial--> gate --refused------------------------> completed with its reason
//                       '--admitted, counted --unknown------> STATUS_INVALID_DEVICE_REQUEST
//                                |--buffer too short--------> STATUS_BUFFER_TOO_SMALL
//                                |--WAIT_ON_MASK, SET_WAIT_MASK--> mask queue (navox_write)
//                                '--any other---------------> served and completed at once
#pragma once

#include "navox.h"

DRIVER_DISPATCH DeviceControl;
