// Plug and Play.
//
//     NEVER_STARTED --start--> STARTED --query stop--> STOP_PENDING --stop--> STOPPED --start--> STARTED
//                                |  ^----cancel stop-------'
//                                |  ^----cancel remove---.
//                                '--query remove--> REMOVE_PENDING --remove--> REMOVED
//
//     STARTED, STOP_PENDING,   --surprise removal--> SURPRISE_REMOVED --remove--> REMOVED
//     REMOVE_PENDING, STOPPED,
//     POWER_QUERIED
//     NEVER_STARTED, STARTED,  --remove--> REMOVED
//     POWER_QUERIED
//
// Every other pair of a state and a minor code goes straight down.
#pragma once

#include "navox.h"

DRIVER_DISPATCH PnpDispatch;
