#include "po/power_watchdog.h"

#include "io/device.h"
#include "io/names.h"
#include "ke/kernel_impl.h"

#include <algorithm>

namespace host {

void PoReportStuck(const IrpRecordPtr& record, PDEVICE_OBJECT pdo)
{
    PDEVICE_OBJECT holder = nullptr;
    {
        const MutexLock lock(IrpTable::Current().mutex);
        if (!record->freed && record->irp->CurrentLocation <= record->irp->StackCount)
            holder = IoGetCurrentIrpStackLocation(record->irp)->DeviceObject;
    }
    VfReport(Rule::PowerStuck, IopMinorName(IRP_MJ_POWER, record->minor),
             record->Describe() + " has been on the stack above " + IopDescribeDevice(pdo) + " for " +
                 std::to_string(kPowerPatience / kSecond) + " s; " + IopDescribeDevice(holder) + " holds it",
             record->caller);
}

PowerWatchdog::PowerWatchdog()
{
    KeInitializeDpc(&dpc_, Expired, this);
    KeInitializeTimer(&timer_);
}

void PowerWatchdog::Begin(PIRP irp, PDEVICE_OBJECT pdo, UCHAR minor, DEVICE_POWER_STATE state)
{
    IrpRecordPtr record = IrpTable::Current().Find(irp);
    const MutexLock lock(mutex_);
    entries_.push_back({std::move(record), pdo, minor == IRP_MN_SET_POWER && state == PowerDeviceD0,
                        Kernel::Current().InterruptTime() + kPowerPatience});
    Arm();
}

void PowerWatchdog::End(PIRP irp)
{
    const MutexLock lock(mutex_);
    entries_.remove_if([=](const Entry& entry) { return entry.record->irp == irp; });
    Arm();
}

void PowerWatchdog::Stop()
{
    const MutexLock lock(mutex_);
    entries_.clear();
    Arm();
}

bool PowerWatchdog::PoweringUp(PDEVICE_OBJECT pdo)
{
    const MutexLock lock(mutex_);
    return std::any_of(entries_.begin(), entries_.end(),
                       [=](const Entry& entry) { return entry.powers_up && entry.pdo == pdo; });
}

// Without the exported routines: a clock of the system's own is no point where threads are switched.
void PowerWatchdog::Arm()
{
    TimerQueue& timers = KiKernel().timers;
    const auto first = std::find_if(entries_.begin(), entries_.end(),
                                    [](const Entry& entry) { return entry.deadline != kForever; });
    if (first == entries_.end())
        timers.Cancel(timer_);
    else
        timers.Set(timer_, first->deadline, 0, &dpc_);
}

VOID NTAPI PowerWatchdog::Expired(PKDPC, PVOID self, PVOID, PVOID)
{
    static_cast<PowerWatchdog*>(self)->ReportOverdue();
}

void PowerWatchdog::ReportOverdue()
{
    std::vector<Entry> overdue;
    {
        const MutexLock lock(mutex_);
        const Time now = Kernel::Current().InterruptTime();
        for (Entry& entry : entries_) {
            if (entry.deadline > now)
                continue;
            overdue.push_back(entry);
            entry.deadline = kForever;
        }
        Arm();
    }
    for (const Entry& entry : overdue)
        PoReportStuck(entry.record, entry.pdo);
}

} // namespace host
