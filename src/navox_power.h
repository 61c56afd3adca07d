// Power. The driver is the power policy owner: a system request is turned into a device request on its way
// back up.
//
//     system request --down--> completion --PoRequestPowerIrp--> device request --> callback --> system
//                                  |                                  ^                      request done
//                                  '-- fast resume to S0: done at once; the device follows ---'
//
//     D0 --set D1..D3: report, drain both in-pipes, pass down--> D1..D3 --set D0: pass down, report--> D0
//
//     STARTED --query of a device state--> POWER_QUERIED --set of the same state or a higher one--> STARTED
#pragma once

#include "navox.h"

DRIVER_DISPATCH PowerDispatch;
