#include "ke/kernel_impl.h"
#include "ke/object_checks.h"
#include "verifier/idle_rules.h"

#include <algorithm>
#include <array>

using namespace host;

namespace {

void CheckWait(const LARGE_INTEGER* timeout, const char* routine, const void* caller)
{
    const KIRQL irql = KeGetCurrentIrql();
    const bool only_looks = timeout != nullptr && timeout->QuadPart == 0;
    if (irql == DISPATCH_LEVEL && !only_looks)
        VfReport(Rule::IrqlKeWaitAtDispatch, routine,
                 std::string(routine) +
                     (timeout == nullptr ? " without a time-out" : " with a time-out that is not zero") +
                     " at DISPATCH_LEVEL; " + VfDescribeLocksHeld(),
                 caller);
    VfRequireIrqlAtMost(DISPATCH_LEVEL, Rule::IrqlKeDispatchLte, routine, caller);
    if (!only_looks)
        IdleScope::CheckWait(routine, caller);
}

// A UserMode wait lets the stack be paged out, with the object on it.
void CheckWaitMode(KPROCESSOR_MODE mode, const void* object, const char* routine, const void* caller)
{
    const Thread& self = KiSelf();
    if (mode == UserMode && object >= self.stack_low && object < self.stack_high)
        VfReport(Rule::WaitUserModeOnStack, routine,
                 std::string(routine) + " waits in UserMode for an object on the thread's own stack", caller);
}

const char* WhatIs(const DISPATCHER_HEADER& header)
{
    switch (static_cast<ObjectType>(header.Type)) {
    case ObjectType::NotificationEvent:
    case ObjectType::SynchronizationEvent: return "an event";
    case ObjectType::Thread: return "the end of a thread";
    case ObjectType::NotificationTimer:
    case ObjectType::SynchronizationTimer: return "a timer";
    }
    return "an object";
}

Time DeadlineOf(const LARGE_INTEGER* timeout)
{
    return timeout == nullptr ? kForever : KiDeadlineOf(timeout->QuadPart);
}

} // namespace

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON /*WaitReason*/, KPROCESSOR_MODE WaitMode,
                                     BOOLEAN /*Alertable*/, PLARGE_INTEGER Timeout)
{
    const void* const caller = __builtin_return_address(0);
    auto& header = *static_cast<DISPATCHER_HEADER*>(Object);
    CheckWait(Timeout, __func__, caller);
    CheckWaitMode(WaitMode, Object, __func__, caller);
    KiRequireInitialized(header, __func__, caller);
    return KiWaitOne(header, DeadlineOf(Timeout), {WhatIs(header), Object});
}

NTSTATUS NTAPI KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                        KWAIT_REASON /*WaitReason*/, KPROCESSOR_MODE WaitMode,
                                        BOOLEAN /*Alertable*/, PLARGE_INTEGER Timeout,
                                        PKWAIT_BLOCK WaitBlockArray)
{
    const void* const caller = __builtin_return_address(0);
    const ULONG most = WaitBlockArray == nullptr ? THREAD_WAIT_OBJECTS : MAXIMUM_WAIT_OBJECTS;
    if (Count == 0 || Count > most)
        KeBugCheckEx(0x0C /* MAXIMUM_WAIT_OBJECTS_EXCEEDED */, Count, most, 0, 0);
    CheckWait(Timeout, __func__, caller);
    for (ULONG i = 0; i < Count; ++i) {
        CheckWaitMode(WaitMode, Object[i], __func__, caller);
        KiRequireInitialized(*static_cast<DISPATCHER_HEADER*>(Object[i]), __func__, caller);
    }
    std::array<KWAIT_BLOCK, THREAD_WAIT_OBJECTS> few;
    return KiWait({Object, Count}, WaitType, DeadlineOf(Timeout),
                  WaitBlockArray == nullptr ? few.data() : WaitBlockArray,
                  {WaitType == WaitAll ? "all of several objects" : "one of several objects", Object[0]});
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE /*WaitMode*/, BOOLEAN /*Alertable*/,
                                      PLARGE_INTEGER Interval)
{
    const void* const caller = __builtin_return_address(0);
    VfRequireIrqlAtMost(APC_LEVEL, Rule::IrqlKeApcLte, __func__, caller);
    IdleScope::CheckWait(__func__, caller);
    Scheduler& scheduler = KiSelf().kernel.GetScheduler();
    const Time deadline = KiDeadlineOf(Interval->QuadPart);
    do {
        // Others run even when it is over already.
        (void)scheduler.Block({"a delay", nullptr}, deadline);
    } while (scheduler.Now() < deadline);
    return STATUS_SUCCESS;
}
