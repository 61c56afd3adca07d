#include "ke/kernel_impl.h"
#include "ke/object_checks.h"

#include <string>

using namespace host;

namespace {

// Count is FM_LOCK_BIT while it is free.
bool TryTake(FAST_MUTEX& mutex)
{
    LONG free = FM_LOCK_BIT;
    return __atomic_compare_exchange_n(&mutex.Count, &free, 0, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

void Own(FAST_MUTEX& mutex, Thread& self, KIRQL old_irql, const void* caller)
{
    mutex.Owner = KiHandleOf(self);
    mutex.OldIrql = old_irql;
    if (VfEnabled())
        KiKernel().locks.Acquired(self, &mutex, LockKind::FastMutex, old_irql, caller);
}

void CheckUse(FAST_MUTEX& mutex, const char* routine, const void* caller)
{
    VfRequireIrqlAtMost(APC_LEVEL, Rule::FastMutexIrql, routine, caller);
    if (!KiIsInitialized(mutex.Event.Header)) {
        VfReport(Rule::FastMutexUninitialized, routine, "a fast mutex was never initialised", caller);
        ExInitializeFastMutex(&mutex);
    }
}

void BlockFor(FAST_MUTEX& mutex)
{
    __atomic_add_fetch(&mutex.Contention, 1, __ATOMIC_RELAXED);
    do {
        // Set by each release, so a wake that comes too early only costs a round.
        (void)KiWaitOne(mutex.Event.Header, kForever, {"a fast mutex", &mutex});
    } while (!TryTake(mutex));
}

} // namespace

static void Acquire(PFAST_MUTEX mutex, KIRQL irql, const char* routine, const void* caller) HOST_NO_ANALYSIS
{
    Thread& self = KiSelf();
    CheckUse(*mutex, routine, caller);
    if (VfEnabled() && !KiKernel().locks.Acquiring(self, mutex, LockKind::FastMutex, caller))
        return;
    const KIRQL old_irql = self.irql;
    KiYield(YieldPoint::Lock);
    if (!TryTake(*mutex))
        BlockFor(*mutex);
    if (old_irql < irql)
        KiSetIrql(self, irql);
    Own(*mutex, self, old_irql, caller);
}

VOID NTAPI ExAcquireFastMutex(PFAST_MUTEX FastMutex) HOST_NO_ANALYSIS
{
    Acquire(FastMutex, APC_LEVEL, __func__, __builtin_return_address(0));
}

VOID NTAPI ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex) HOST_NO_ANALYSIS
{
    const void* const caller = __builtin_return_address(0);
    const Thread& self = KiSelf();
    if (self.irql < APC_LEVEL && self.critical_regions == 0)
        VfReport(Rule::FastMutexIrql, __func__, "below APC_LEVEL and in no critical region", caller);
    Acquire(FastMutex, self.irql, __func__, caller);
}

BOOLEAN NTAPI ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex) HOST_NO_ANALYSIS
{
    const void* const caller = __builtin_return_address(0);
    Thread& self = KiSelf();
    CheckUse(*FastMutex, __func__, caller);
    const KIRQL old_irql = self.irql;
    KiYield(YieldPoint::Lock);
    if (!TryTake(*FastMutex))
        return FALSE;
    if (old_irql < APC_LEVEL)
        KiSetIrql(self, APC_LEVEL);
    Own(*FastMutex, self, old_irql, caller);
    return TRUE;
}

static void Release(PFAST_MUTEX mutex, bool restore_irql, const void* caller) HOST_NO_ANALYSIS
{
    Thread& self = KiSelf();
    if (VfEnabled() && !KiKernel().locks.Releasing(self, mutex, LockKind::FastMutex, std::nullopt, caller))
        return;
    const auto old_irql = static_cast<KIRQL>(mutex->OldIrql);
    mutex->Owner = nullptr;
    __atomic_store_n(&mutex->Count, FM_LOCK_BIT, __ATOMIC_RELEASE);
    {
        // Once it is free another thread may free its memory as well: it is touched under this lock at most,
        // where the next owner's release comes after.
        const MutexLock lock(KiDispatcher());
        KiSignal(mutex->Event.Header);
    }
    if (restore_irql)
        KiSetIrql(self, old_irql);
    KiYield(YieldPoint::Unlock);
}

VOID NTAPI ExReleaseFastMutex(PFAST_MUTEX FastMutex) HOST_NO_ANALYSIS
{
    const void* const caller = __builtin_return_address(0);
    const Thread& self = KiSelf();
    if (self.irql != APC_LEVEL)
        VfReport(Rule::FastMutexReleaseIrql, __func__,
                 "IRQL is " + std::to_string(self.irql) + "; " + VfDescribeLocksHeld(), caller);
    Release(FastMutex, true, caller);
}

VOID NTAPI ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex) HOST_NO_ANALYSIS
{
    Release(FastMutex, false, __builtin_return_address(0));
}
