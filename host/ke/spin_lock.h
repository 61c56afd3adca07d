// Spin locks inside the kernel: as the exported routines, with the driver's own return address for reports.
#pragma once

#include "ke/scheduler.h"

#include <wdm/ke.h>

namespace host {

// Raises to DISPATCH_LEVEL; returns the IRQL before.
KIRQL KiAcquireSpinLock(KSPIN_LOCK* lock, YieldPoint point, const char* routine, const void* caller);
void KiReleaseSpinLock(KSPIN_LOCK* lock, KIRQL new_irql, YieldPoint point, const char* routine,
                       const void* caller);

// Where threads of a simulated kernel spin: they block, so that a deadlock can be seen.
class SpinWaiters {
  public:
    void Add(const KSPIN_LOCK* lock, Thread& thread);
    void Remove(Thread& thread);
    void WakeAll(const KSPIN_LOCK* lock, Scheduler& scheduler);

  private:
    struct Waiter {
        const KSPIN_LOCK* lock;
        Thread* thread;
    };
    std::vector<Waiter> waiters_; // of the running thread, like all data of the simulated scheduler
};

} // namespace host
