// The clock of device power requests: who holds one for longer than the system bears.
#pragma once

#include "io/irp.h"
#include "ke/time.h"

#include <list>

namespace host {

// How long a stack may hold a power request before the system gives up.
inline constexpr Time kPowerPatience = 600 * kSecond;

// 0x9F, 3, with what the system names then: the bottom of the stack, the request, and who has it.
void PoReportStuck(const IrpRecordPtr& record, PDEVICE_OBJECT pdo);

class PowerWatchdog {
  public:
    PowerWatchdog();

    // A request that asks the stack above `pdo` for a state sets out, and is back. IRQL <= DISPATCH_LEVEL.
    void Begin(PIRP irp, PDEVICE_OBJECT pdo, UCHAR minor, DEVICE_POWER_STATE state);
    void End(PIRP irp);
    // No request is timed any more.
    void Stop();
    // The stack above `pdo` is on its way to D0.
    bool PoweringUp(PDEVICE_OBJECT pdo);

  private:
    struct Entry {
        IrpRecordPtr record;
        PDEVICE_OBJECT pdo;
        bool powers_up;
        Time deadline; // kForever once it was reported
    };

    static VOID NTAPI Expired(PKDPC dpc, PVOID self, PVOID, PVOID);
    void Arm() HOST_REQUIRES(mutex_);
    void ReportOverdue();

    Mutex mutex_;
    std::list<Entry> entries_ HOST_GUARDED_BY(mutex_); // oldest first
    KDPC dpc_{};
    KTIMER timer_{};
};

} // namespace host
