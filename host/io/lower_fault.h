// Faults in the place of a driver below: requests that fail, that pend, that come late or never.
#pragma once

#include "verifier/irp_rules.h"

namespace host {

// Asks the fault points about a request that is about to be dispatched to `device`. True: it was dealt with,
// and `status` is the driver's answer.
bool IopLowerFault(PDEVICE_OBJECT device, PIRP irp, const IrpTicket& ticket, NTSTATUS* status);

} // namespace host
