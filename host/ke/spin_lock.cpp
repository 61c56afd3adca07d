#include "ke/spin_lock.h"

#include "ke/kernel_impl.h"
#include "ke/object_checks.h"

#include <optional>
#include <sched.h>

namespace host {

void SpinWaiters::Add(const KSPIN_LOCK* lock, Thread& thread)
{
    waiters_.push_back({lock, &thread});
}

void SpinWaiters::Remove(Thread& thread)
{
    std::erase_if(waiters_, [&thread](const Waiter& waiter) { return waiter.thread == &thread; });
}

void SpinWaiters::WakeAll(const KSPIN_LOCK* lock, Scheduler& scheduler)
{
    for (const Waiter& waiter : waiters_) {
        if (waiter.lock == lock)
            scheduler.Wake(*waiter.thread);
    }
}

namespace {

bool TryTake(KSPIN_LOCK* lock)
{
    return __atomic_exchange_n(lock, 1, __ATOMIC_ACQUIRE) == 0;
}

void SpinLive(KSPIN_LOCK* lock)
{
    constexpr unsigned kSpinsBeforeYield = 200;
    for (unsigned spins = 0;; ++spins) {
        if (__atomic_load_n(lock, __ATOMIC_RELAXED) == 0 && TryTake(lock))
            return;
        // The holder is an ordinary thread: it may have lost its processor.
        if (spins < kSpinsBeforeYield)
            __builtin_ia32_pause();
        else
            sched_yield();
    }
}

void SpinSimulated(Thread& self, KSPIN_LOCK* lock)
{
    Kernel::Impl& kernel = self.kernel.impl();
    kernel.spin_waiters.Add(lock, self);
    do {
        (void)kernel.scheduler->Block({"a spin lock", lock}, kForever);
    } while (!TryTake(lock));
    kernel.spin_waiters.Remove(self);
}

// IRQL is DISPATCH_LEVEL already.
void Take(Thread& self, KSPIN_LOCK* lock, KIRQL old_irql, YieldPoint point, const void* caller)
{
    Kernel::Impl& kernel = self.kernel.impl();
    const bool verify = kernel.verifier.Enabled();
    if (verify && !kernel.locks.Acquiring(self, lock, LockKind::Spin, caller))
        return;
    kernel.scheduler->Yield(point);
    if (!TryTake(lock)) {
        if (kernel.options.mode == Mode::Live)
            SpinLive(lock);
        else
            SpinSimulated(self, lock);
    }
    if (verify)
        kernel.locks.Acquired(self, lock, LockKind::Spin, old_irql, caller);
}

void Give(Thread& self, KSPIN_LOCK* lock, std::optional<KIRQL> new_irql, const void* caller)
{
    Kernel::Impl& kernel = self.kernel.impl();
    if (kernel.verifier.Enabled() && !kernel.locks.Releasing(self, lock, LockKind::Spin, new_irql, caller))
        return;
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
    if (kernel.options.mode == Mode::Simulated)
        kernel.spin_waiters.WakeAll(lock, *kernel.scheduler);
}

} // namespace

KIRQL KiAcquireSpinLock(KSPIN_LOCK* lock, YieldPoint point, const char* routine, const void* caller)
{
    Thread& self = KiSelf();
    const KIRQL old_irql = self.irql;
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::SpinLockIrql, routine, caller);
    if (old_irql < DISPATCH_LEVEL)
        KiSetIrql(self, DISPATCH_LEVEL);
    Take(self, lock, old_irql, point, caller);
    return old_irql;
}

void KiReleaseSpinLock(KSPIN_LOCK* lock, KIRQL new_irql, YieldPoint point, const char* routine,
                       const void* caller)
{
    Thread& self = KiSelf();
    if (self.irql != DISPATCH_LEVEL)
        VfReport(Rule::IrqlKeReleaseSpinLock, routine,
                 std::string(routine) + " at IRQL " + std::to_string(self.irql) + "; " +
                     VfDescribeLocksHeld(),
                 caller);
    Give(self, lock, new_irql, caller);
    KiSetIrql(self, new_irql);
    KiYield(point);
}

} // namespace host

using namespace host;

VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    const void* const caller = __builtin_return_address(0);
    KiRequireResident(SpinLock, __func__, caller);
    if (VfEnabled())
        KiKernel().locks.Initialized(SpinLock, LockKind::Spin, caller);
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE);
}

KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) HOST_NO_ANALYSIS
{
    return KiAcquireSpinLock(SpinLock, YieldPoint::Lock, __func__, __builtin_return_address(0));
}

VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) HOST_NO_ANALYSIS
{
    KiReleaseSpinLock(SpinLock, NewIrql, YieldPoint::Unlock, __func__, __builtin_return_address(0));
}

VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) HOST_NO_ANALYSIS
{
    const void* const caller = __builtin_return_address(0);
    Thread& self = KiSelf();
    if (self.irql != DISPATCH_LEVEL)
        VfReport(Rule::SpinLockIrql, __func__,
                 std::string(__func__) + " at IRQL " + std::to_string(self.irql), caller);
    Take(self, SpinLock, self.irql, YieldPoint::Lock, caller);
}

VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) HOST_NO_ANALYSIS
{
    const void* const caller = __builtin_return_address(0);
    Thread& self = KiSelf();
    if (self.irql != DISPATCH_LEVEL)
        VfReport(Rule::IrqlKeReleaseSpinLock, __func__,
                 std::string(__func__) + " at IRQL " + std::to_string(self.irql), caller);
    Give(self, SpinLock, std::nullopt, caller);
    KiYield(YieldPoint::Unlock);
}
