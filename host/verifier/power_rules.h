// Rules of power requests.
#pragma once

#include "io/irp.h"

namespace host {

// PoStartNextPowerIrp for the driver whose turn it is. False: not a power request.
bool VfPowerStartNext(PIRP irp, const void* caller);

// A driver's turn at a request has ended: it completed, or it was passed on without a stack location of its
// own. Called for every kind of request.
void VfPowerTurnEnded(const IrpRecord& record, const IrpTurn& turn);

} // namespace host
