#include "ke/kernel_impl.h"
#include "ke/object_checks.h"

using namespace host;

VOID NTAPI KeInitializeTimer(PKTIMER Timer)
{
    KeInitializeTimerEx(Timer, NotificationTimer);
}

VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type)
{
    const void* const caller = __builtin_return_address(0);
    KiRequireResident(Timer, __func__, caller);
    if (KiKernel().timers.ArmedIn(Timer, Timer + 1) != nullptr) {
        VfReport(Rule::ObjectReinitialized, __func__, "a timer was initialised while it was armed", caller);
        KeCancelTimer(Timer);
    }
    *Timer = {};
    KiInitializeHeader(
        Timer->Header,
        Type == NotificationTimer ? ObjectType::NotificationTimer : ObjectType::SynchronizationTimer, 0);
}

BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc)
{
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN NTAPI KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, caller);
    KiRequireInitialized(Timer->Header, __func__, caller);
    const bool was_armed = KiKernel().timers.Set(*Timer, KiDeadlineOf(DueTime.QuadPart),
                                                 Period > 0 ? static_cast<ULONG>(Period) : 0, Dpc);
    KiYield(YieldPoint::Timer);
    return was_armed ? TRUE : FALSE;
}

BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, caller);
    KiRequireInitialized(Timer->Header, __func__, caller);
    KiYield(YieldPoint::Timer);
    return KiKernel().timers.Cancel(*Timer) ? TRUE : FALSE;
}

BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer)
{
    KiYield(YieldPoint::Timer);
    const MutexLock lock(KiDispatcher());
    return Timer->Header.SignalState != 0 ? TRUE : FALSE;
}
