// The rules of the kernel's core: name, the bug check Windows would raise, its first parameter, and what is
// wrong. The I/O manager's rules are listed in irp_rule_table.h in the same form.
#pragma once

// clang-format off
#define VF_CORE_RULES(R)                                                                                              \
    /* Pool */                                                                                                        \
    R(PoolZeroBytes,            0xC4, 0x00,   "a pool block of zero bytes was asked for")                             \
    R(IrqlExAllocatePaged,      0xC4, 0x01,   "paged pool was allocated above APC_LEVEL")                             \
    R(IrqlExAllocatePool,       0xC4, 0x02,   "pool was allocated above DISPATCH_LEVEL")                              \
    R(PoolFreeUnknown,          0xC4, 0x10,   "freed memory that was never allocated")                                \
    R(IrqlExFreePaged,          0xC4, 0x11,   "paged pool was freed above APC_LEVEL")                                 \
    R(IrqlExFreePool,           0xC4, 0x12,   "pool was freed above DISPATCH_LEVEL")                                  \
    R(PoolDoubleFree,           0xC4, 0x13,   "a pool block was freed twice")                                         \
    R(PoolFreeActiveTimer,      0xC4, 0x15,   "freed memory holds an armed timer")                                    \
    R(PoolFreeQueuedDpc,        0xC7, 0x01,   "freed memory holds a queued DPC")                                      \
    R(PoolFreeHeldLock,         0xC4, 0x16,   "freed memory holds a lock that is held")                               \
    R(PoolFreeWaitedObject,     0xC4, 0x17,   "freed memory holds an object that a thread waits for")                 \
    R(PoolFreeSystemObject,     0xC4, 0x105,  "a driver freed an object of the system as if it were plain pool")      \
    R(PoolOverrun,              0xC4, 0x51,   "the bytes after a pool block were overwritten")                        \
    R(PoolUnderrun,             0xC1, 0x23,   "the bytes before a pool block were overwritten")                       \
    R(PoolWrongTag,             0xC2, 0x0A,   "a pool block was freed with another tag")                              \
    R(PoolAllocationInUnload,   0xC4, 0x61,   "pool was allocated by a driver that is being unloaded")                \
    R(PoolLeak,                 0xC4, 0x62,   "a pool block was not freed")                                           \
    R(PoolUseAfterFree,         0xCC, 0x00,   "a pool block was used after it had been freed")                        \
    R(PoolAccessBeyondBlock,    0xCD, 0x00,   "memory beyond a pool block was used")                                  \
    R(PagedAccessAtDispatch,    0x0A, 0x02,   "paged memory was touched at DISPATCH_LEVEL")                           \
    /* IRQL */                                                                                                        \
    R(IrqlKeRaise,              0xC4, 0x30,   "IRQL was raised to a lower level")                                     \
    R(IrqlKeLower,              0xC4, 0x31,   "IRQL was lowered to a higher level")                                   \
    R(IrqlKeSetEvent,           0xC4, 0x80,   "KeSetEvent was called at too high an IRQL")                            \
    R(IrqlKeDispatchLte,        0x0A, 0x80,   "a routine was called above DISPATCH_LEVEL")                            \
    R(IrqlKeApcLte,             0x0A, 0x81,   "a routine was called above APC_LEVEL")                                 \
    R(IrqlPassive,              0x0A, 0x82,   "a routine was called above PASSIVE_LEVEL")                             \
    R(IrqlCriticalRegion,       0xC4, 0x11A,  "a critical region was entered or left above APC_LEVEL")                \
    R(IrqlReturn,               0xC4, 0xC6,   "a callback returned at another IRQL than it was called at")            \
    R(IrqlKeWaitAtDispatch,     0xC4, 0x3B,   "a wait at DISPATCH_LEVEL has a time-out that is not zero")             \
    R(CriticalRegions,          0xC4, 0xC5,   "critical regions were not entered and left in pairs")                  \
    /* Locks */                                                                                                       \
    R(SpinLockIrql,             0xC4, 0x40,   "a spin lock was acquired at the wrong IRQL")                           \
    R(IrqlKeReleaseSpinLock,    0xC4, 0x32,   "a spin lock was released at the wrong IRQL")                           \
    R(SpinLockWrongOldIrql,     0xC4, 0x41,   "a spin lock was released to another IRQL than it was acquired at")     \
    R(SpinLockRecursion,        0xC4, 0x1000, "a spin lock was acquired by the thread that holds it")                 \
    R(LockOrder,                0xC4, 0x1001, "two locks are acquired in both orders")                                \
    R(SpinLockUninitialized,    0xC4, 0x1002, "a spin lock was used before it was initialised")                       \
    R(LockReleaseOrder,         0xC4, 0x1003, "locks were released in another order than the reverse of acquisition") \
    R(SpinLockWrongOwner,       0xC4, 0x1004, "a spin lock was released by a thread that does not hold it")           \
    R(SpinLockDoubleInit,       0xC4, 0x1005, "a lock that is held was initialised again")                            \
    R(FastMutexIrql,            0xC4, 0x33,   "a fast mutex was acquired above APC_LEVEL")                            \
    R(FastMutexReleaseIrql,     0xC4, 0x34,   "a fast mutex was released at another IRQL than APC_LEVEL")             \
    R(FastMutexRecursion,       0xC4, 0x1010, "a fast mutex was acquired by the thread that holds it")                \
    R(FastMutexWrongOwner,      0xC4, 0x1011, "a fast mutex was released by a thread that does not hold it")          \
    R(FastMutexUninitialized,   0xC4, 0x1012, "a fast mutex was used before it was initialised")                      \
    R(LockHeldAtReturn,         0xC4, 0x1020, "a callback or thread ended with a lock held")                          \
    /* Objects */                                                                                                     \
    R(WaitUserModeOnStack,      0xC4, 0x123,  "a UserMode wait is for an object on the thread's stack")                 \
    R(ObjectUninitialized,      0xC7, 0x03,   "a dispatcher object was used before it was initialised")               \
    R(ObjectReinitialized,      0xC7, 0x02,   "an object in use was initialised again")                               \
    R(DispatcherInPagedPool,    0x0A, 0x03,   "a dispatcher object lies in paged memory")                             \
    R(TimerAlive,               0xC7, 0x00,   "a timer is still armed")                                               \
    R(DpcAlive,                 0xC7, 0x01,   "a DPC is still queued or running")                                     \
    R(WorkItemAlive,            0xCE, 0x00,   "a work item is still queued or running")                               \
    R(WorkItemLeak,             0xC4, 0x62,   "a work item was not freed")                                            \
    R(WorkItemUnknown,          0xC4, 0x132,  "a routine was given something that is no work item")                     \
    R(WorkItemFreedQueued,      0xC4, 0x131,  "a work item was freed or queued again while queued")                   \
    R(EtwStillRegistered,       0xC4, 0xDD,   "a provider of event tracing is still registered")                        \
    R(ThreadAlive,              0xCE, 0x01,   "a system thread still runs")                                           \
    R(DpcWatchdog,              0x133, 0x00,  "a DPC took longer than the watchdog allows")                           \
    /* Strings */                                                                                                     \
    R(MalformedString,          0xC4, 0x100,  "a counted string has an odd length or a length beyond its maximum")    \
    /* Runs */                                                                                                        \
    R(Deadlock,                 0xC4, 0x1001, "no thread can run")                                                    \
    R(Livelock,                 0x133, 0x01,  "the run takes more steps than it may")                                 \
    R(ReplayDiverged,           0x00, 0x01,   "the schedule to replay is of another run")                              \
    R(BugCheck,                 0x00, 0x00,   "KeBugCheckEx was called")                                              \
    R(UnhandledException,       0x1E, 0x00,   "an exception left a kernel thread")
// clang-format on
