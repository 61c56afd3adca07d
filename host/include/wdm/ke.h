// Ke: IRQL, spin locks, dispatcher objects, DPCs, timers, waits, time.
#pragma once
#include <ntstatus.h>
#include <wdm/list.h>

#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _KPROCESS* PKPROCESS;

typedef ULONG_PTR _Has_lock_kind_(spin lock) KSPIN_LOCK;
typedef KSPIN_LOCK* PKSPIN_LOCK;

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest,
    WrExecutive,
    MaximumWaitReason = 37
} KWAIT_REASON;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _WAIT_TYPE { WaitAll, WaitAny } WAIT_TYPE;

#define THREAD_WAIT_OBJECTS 3
#define MAXIMUM_WAIT_OBJECTS 64

/// The head of everything that can be waited for.
typedef struct _DISPATCHER_HEADER {
    union {
        struct {
            UCHAR Type;
            UCHAR Signalling;
            UCHAR Size;
            UCHAR Inserted;
        };
        volatile LONG Lock;
    };
    volatile LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

/// Room for one of the objects that a thread waits for with KeWaitForMultipleObjects.
typedef struct _KWAIT_BLOCK {
    LIST_ENTRY WaitListEntry;
    UCHAR WaitType;
    volatile UCHAR BlockState;
    USHORT WaitKey;
    LONG SpareLong;
    PKTHREAD Thread;
    PVOID Object;
    PVOID SparePtr;
} KWAIT_BLOCK, *PKWAIT_BLOCK;

struct _KDPC;
typedef VOID NTAPI KDEFERRED_ROUTINE(struct _KDPC* Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                     PVOID SystemArgument2);
typedef KDEFERRED_ROUTINE* PKDEFERRED_ROUTINE;

typedef enum _KDPC_IMPORTANCE {
    LowImportance,
    MediumImportance,
    HighImportance,
    MediumHighImportance
} KDPC_IMPORTANCE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData;
} KDPC, *PKDPC, *PRKDPC;

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;
    LIST_ENTRY TimerListEntry;
    PKDPC Dpc;
    ULONG Processor;
    ULONG Period;
} KTIMER, *PKTIMER, *PRKTIMER;

typedef VOID NTAPI KNORMAL_ROUTINE(PVOID NormalContext, PVOID SystemArgument1, PVOID SystemArgument2);
typedef KNORMAL_ROUTINE* PKNORMAL_ROUTINE;

typedef struct _KAPC {
    UCHAR Type;
    UCHAR SpareByte0;
    UCHAR Size;
    UCHAR SpareByte1;
    ULONG SpareLong0;
    PKTHREAD Thread;
    LIST_ENTRY ApcListEntry;
    PVOID Reserved[3];
    PVOID NormalContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    CCHAR ApcStateIndex;
    KPROCESSOR_MODE ApcMode;
    BOOLEAN Inserted;
} KAPC, *PKAPC, *PRKAPC;

typedef struct _KDEVICE_QUEUE {
    CSHORT Type;
    CSHORT Size;
    LIST_ENTRY DeviceListHead;
    KSPIN_LOCK Lock;
    BOOLEAN Busy;
} KDEVICE_QUEUE, *PKDEVICE_QUEUE;

typedef struct _KDEVICE_QUEUE_ENTRY {
    LIST_ENTRY DeviceListEntry;
    ULONG SortKey;
    BOOLEAN Inserted;
} KDEVICE_QUEUE_ENTRY, *PKDEVICE_QUEUE_ENTRY;

extern "C" {

_IRQL_requires_max_(HIGH_LEVEL) KIRQL NTAPI KeGetCurrentIrql();
KIRQL NTAPI KfRaiseIrql(KIRQL NewIrql);
VOID NTAPI KeLowerIrql(KIRQL NewIrql);

VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
_IRQL_requires_max_(DISPATCH_LEVEL) _IRQL_saves_ _IRQL_raises_(DISPATCH_LEVEL) KIRQL NTAPI
    KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) _Acquires_lock_(*SpinLock);
_IRQL_requires_(DISPATCH_LEVEL) VOID NTAPI
    KeReleaseSpinLock(PKSPIN_LOCK SpinLock, _IRQL_restores_ KIRQL NewIrql) _Releases_lock_(*SpinLock);
_IRQL_requires_min_(DISPATCH_LEVEL) VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
    _Acquires_lock_(*SpinLock);
_IRQL_requires_min_(DISPATCH_LEVEL) VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
    _Releases_lock_(*SpinLock);

VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
_IRQL_requires_max_(DISPATCH_LEVEL) LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
_IRQL_requires_max_(DISPATCH_LEVEL) LONG NTAPI KeResetEvent(PRKEVENT Event);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI KeClearEvent(PRKEVENT Event);
LONG NTAPI KeReadStateEvent(PRKEVENT Event);

/// A time-out is in 100 ns units: negative is relative, positive absolute, nullptr for ever.
_IRQL_requires_max_(APC_LEVEL) NTSTATUS NTAPI
    KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                          PLARGE_INTEGER Timeout);
_IRQL_requires_max_(APC_LEVEL) NTSTATUS NTAPI
    KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                             KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                             PKWAIT_BLOCK WaitBlockArray);
_IRQL_requires_max_(APC_LEVEL) NTSTATUS NTAPI
    KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

VOID NTAPI KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
BOOLEAN NTAPI KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
BOOLEAN NTAPI KeRemoveQueueDpc(PRKDPC Dpc);
VOID NTAPI KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID NTAPI KeFlushQueuedDpcs();

VOID NTAPI KeInitializeTimer(PKTIMER Timer);
VOID NTAPI KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
/// Due time in 100 ns units; the period of the Ex form is in milliseconds. True when it was armed already.
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN NTAPI KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN NTAPI
    KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN NTAPI KeCancelTimer(PKTIMER Timer);
_IRQL_requires_max_(DISPATCH_LEVEL) BOOLEAN NTAPI KeReadStateTimer(PKTIMER Timer);

VOID NTAPI KeEnterCriticalRegion();
VOID NTAPI KeLeaveCriticalRegion();
PRKTHREAD NTAPI KeGetCurrentThread();
KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
ULONG NTAPI KeQueryActiveProcessorCount(KAFFINITY* ActiveProcessors);

VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
VOID NTAPI KeQueryTickCount(PLARGE_INTEGER CurrentCount);
ULONG NTAPI KeQueryTimeIncrement();
ULONGLONG NTAPI KeQueryInterruptTime();
LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);
VOID NTAPI KeStallExecutionProcessor(ULONG MicroSeconds);

DECLSPEC_NORETURN VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR BugCheckParameter1,
                                          ULONG_PTR BugCheckParameter2, ULONG_PTR BugCheckParameter3,
                                          ULONG_PTR BugCheckParameter4);

} // extern "C"

#define KeRaiseIrql(NewIrql, OldIrql) (*(OldIrql) = KfRaiseIrql(NewIrql))
#define KeAcquireSpinLock(SpinLock, OldIrql) (*(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock))

#define LOW_PRIORITY 0
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31
