#include "verifier/power_rules.h"

#include "io/device.h"
#include "io/io_manager.h"
#include "io/names.h"
#include "po/power_manager.h"

namespace host {
bool VfPowerStartNext(PIRP irp, const void* caller)
{
    IrpRecordPtr record = IrpTable::Current().Find(irp);
    if (!record || irp->CurrentLocation > irp->StackCount) {
        VfReport(Rule::IrpInvalid, "PoStartNextPowerIrp",
                 "PoStartNextPowerIrp was given a request that its driver no longer has", caller);
        return false;
    }
    bool twice = false;
    {
        const MutexLock lock(IrpTable::Current().mutex);
        IrpTurn& turn = record->turns[static_cast<std::size_t>(irp->CurrentLocation)];
        twice = turn.started_next;
        turn.started_next = true;
    }
    if (twice)
        VfReport(Rule::PowerStartedTwice, IopMinorName(record->major, record->minor),
                 record->Describe() + ": once more by " +
                     IopDescribeDevice(IoGetCurrentIrpStackLocation(irp)->DeviceObject),
                 caller);
    return !twice;
}

void VfPowerTurnEnded(const IrpRecord& record, const IrpTurn& turn)
{
    if (record.major != IRP_MJ_POWER)
        return;
    const bool serialised = record.minor == IRP_MN_SET_POWER || record.minor == IRP_MN_QUERY_POWER;
    if (serialised && !turn.started_next)
        VfReport(Rule::PowerNotStartedNext, IopMinorName(record.major, record.minor),
                 record.Describe() + ": by " + IopDescribeDevice(turn.device));
    if (IoManager::Current().DeviceExists(turn.device))
        PowerManager::Current().TurnEnded(turn.device);
}

} // namespace host
