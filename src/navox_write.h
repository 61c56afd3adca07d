// Writes, which go nowhere, and the serial event mask.
//
//     no wait --WAIT_ON_MASK--> armed --event------------> completed with the events
//        |                        |-----SET_WAIT_MASK----> completed with 0
//        |                        '-----cancelled--------> STATUS_CANCELLED
//        '--WAIT_ON_MASK, events in the history----------> completed with them
#pragma once

#include "navox_requests.h"

// The port is receive-only: what applications write is accepted and discarded.
DRIVER_DISPATCH WriteDispatch;

// Adds to the client's history the events that a transfer means: SERIAL_EV_RXCHAR, and SERIAL_EV_RXFLAG by
// the first byte of the transfer only. True: an armed wait is to be told, with DeliverEvents. Client lock
// held.
[[nodiscard]] _IRQL_requires_(DISPATCH_LEVEL) bool NoteReceiveEvents(CLIENT* client, UCHAR firstByte)
    _Requires_lock_held_(client->Lock);

// Gives the history to the armed wait, if there still are both. Returns the wait, for CompleteCounted, when
// this was its last reference.
[[nodiscard]] _IRQL_requires_max_(DISPATCH_LEVEL) PIRP DeliverEvents(CLIENT* client);
