#include "ke/kernel_impl.h"

#include <string>

namespace host {

void KiSetIrql(Thread& thread, KIRQL irql)
{
    if (thread.irql == irql)
        return;
    thread.irql = irql;
    KiApplyIrql(thread);
}

void KiApplyIrql(const Thread& thread)
{
    Kernel::Impl& kernel = thread.kernel.impl();
    if (kernel.options.mode == Mode::Simulated)
        kernel.pool.HidePaged(thread.irql >= DISPATCH_LEVEL);
}

} // namespace host

using namespace host;

KIRQL NTAPI KeGetCurrentIrql()
{
    return KiSelf().irql;
}

KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql)
{
    Thread& self = KiSelf();
    const KIRQL old = self.irql;
    if (NewIrql < old)
        VfReport(Rule::IrqlKeRaise, __func__,
                 "raised from " + std::to_string(old) + " to " + std::to_string(NewIrql),
                 __builtin_return_address(0));
    KiSetIrql(self, NewIrql);
    return old;
}

VOID NTAPI KeLowerIrql(KIRQL NewIrql)
{
    Thread& self = KiSelf();
    if (NewIrql > self.irql)
        VfReport(Rule::IrqlKeLower, __func__,
                 "lowered from " + std::to_string(self.irql) + " to " + std::to_string(NewIrql),
                 __builtin_return_address(0));
    if (NewIrql < DISPATCH_LEVEL && VfSpinLocksHeld() > 0)
        VfReport(Rule::SpinLockIrql, __func__,
                 "IRQL was lowered with a spin lock held; " + VfDescribeLocksHeld(),
                 __builtin_return_address(0));
    KiSetIrql(self, NewIrql);
    KiYield(YieldPoint::Other);
}

VOID NTAPI KeEnterCriticalRegion()
{
    VfRequireIrqlAtMost(APC_LEVEL, Rule::IrqlCriticalRegion, __func__, __builtin_return_address(0));
    ++KiSelf().critical_regions;
}

VOID NTAPI KeLeaveCriticalRegion()
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(APC_LEVEL, Rule::IrqlCriticalRegion, __func__, caller);
    if (--KiSelf().critical_regions < 0)
        VfReport(Rule::CriticalRegions, __func__, "a critical region was left that was not entered", caller);
}
