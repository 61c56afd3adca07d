#include "ke/kernel_impl.h"
#include "ke/object_checks.h"

using namespace host;

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    const void* const caller = __builtin_return_address(0);
    KiRequireResident(Event, __func__, caller);
    if (VfEnabled()) {
        KiKernel().locks.EventInitialized(Event, caller);
        if (const std::string waiter = KiWaiterIn(Event, Event + 1); !waiter.empty())
            VfReport(Rule::ObjectReinitialized, __func__, waiter + " waits for the event", caller);
    }
    KiInitializeHeader(Event->Header,
                       Type == NotificationEvent ? ObjectType::NotificationEvent
                                                 : ObjectType::SynchronizationEvent,
                       State != FALSE ? 1 : 0);
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY /*Increment*/, BOOLEAN Wait)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(Wait != FALSE ? APC_LEVEL : DISPATCH_LEVEL, Rule::IrqlKeSetEvent, __func__, caller);
    KiRequireInitialized(Event->Header, __func__, caller);
    LONG before = 0;
    {
        const MutexLock lock(KiDispatcher());
        before = Event->Header.SignalState;
        KiSignal(Event->Header);
    }
    KiYield(YieldPoint::Event);
    return before;
}

LONG NTAPI KeResetEvent(PRKEVENT Event)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, caller);
    KiRequireInitialized(Event->Header, __func__, caller);
    KiYield(YieldPoint::Event);
    const MutexLock lock(KiDispatcher());
    const LONG before = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return before;
}

VOID NTAPI KeClearEvent(PRKEVENT Event)
{
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, __func__, __builtin_return_address(0));
    KiRequireInitialized(Event->Header, __func__, __builtin_return_address(0));
    KiYield(YieldPoint::Event);
    const MutexLock lock(KiDispatcher());
    Event->Header.SignalState = 0;
}

LONG NTAPI KeReadStateEvent(PRKEVENT Event)
{
    KiYield(YieldPoint::Event);
    const MutexLock lock(KiDispatcher());
    return Event->Header.SignalState;
}
