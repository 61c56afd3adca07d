// Dispatcher objects: what can be signalled and waited for.
#pragma once

#include "ke/mutex.h"
#include "ke/thread.h"
#include "ke/time.h"

#include <span>

namespace host {

// The platform's numbers in DISPATCHER_HEADER::Type.
enum class ObjectType : UCHAR {
    NotificationEvent = 0,
    SynchronizationEvent = 1,
    Thread = 6,
    NotificationTimer = 8,
    SynchronizationTimer = 9,
};

// One lock for all dispatcher objects, timers and the DPC queue. Scheduler::Wake may be called under it,
// Block and Yield may not.
Mutex& KiDispatcher();

void KiInitializeHeader(DISPATCHER_HEADER& header, ObjectType type, LONG state);
// Its type and size are those of an object that can be waited for. They never change: no lock is needed.
bool KiIsInitialized(const DISPATCHER_HEADER& header);

// Makes `header` signalled and lets the threads go whose wait that satisfies.
void KiSignal(DISPATCHER_HEADER& header) HOST_REQUIRES(KiDispatcher());

// The name of a thread that waits for an object in the memory; empty when there is none.
std::string KiWaiterIn(const void* begin, const void* end);

// When an absolute (positive) or relative (negative) time of the platform is, in interrupt time. 0 is now.
Time KiDeadlineOf(LONGLONG due);

// Waits without any check of IRQL. `blocks` has room for `objects.size()`. `reason` is for reports.
NTSTATUS KiWait(std::span<PVOID const> objects, WAIT_TYPE type, Time deadline, KWAIT_BLOCK* blocks,
                const WaitReason& reason);
NTSTATUS KiWaitOne(DISPATCHER_HEADER& header, Time deadline, const WaitReason& reason);

} // namespace host
