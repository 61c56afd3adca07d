// Ex: pool, fast mutexes, interlocked operations and plain ordered accesses.
#pragma once
#include <wdm/ke.h>

typedef enum _POOL_TYPE {
    NonPagedPool,
    NonPagedPoolExecute = NonPagedPool,
    PagedPool,
    NonPagedPoolMustSucceed,
    DontUseThisType,
    NonPagedPoolCacheAligned,
    PagedPoolCacheAligned,
    NonPagedPoolNx = 512
} POOL_TYPE;

typedef enum _EX_POOL_PRIORITY {
    LowPoolPriority = 0,
    NormalPoolPriority = 16,
    HighPoolPriority = 32
} EX_POOL_PRIORITY;

typedef struct _Has_lock_kind_(fast mutex) _FAST_MUTEX
{
    volatile LONG Count;
    PKTHREAD Owner;
    ULONG Contention;
    KEVENT Event;
    ULONG OldIrql;
}
FAST_MUTEX, *PFAST_MUTEX;

#define FM_LOCK_BIT 0x1

extern "C" {

_IRQL_requires_max_(DISPATCH_LEVEL) PVOID NTAPI
    ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID NTAPI ExFreePool(PVOID P);

_IRQL_requires_max_(APC_LEVEL) VOID NTAPI ExAcquireFastMutex(PFAST_MUTEX FastMutex)
    _Acquires_lock_(FastMutex);
_IRQL_requires_(APC_LEVEL) VOID NTAPI ExReleaseFastMutex(PFAST_MUTEX FastMutex) _Releases_lock_(FastMutex);
/// The same for callers that have disabled APCs, by a critical region or APC_LEVEL; the IRQL stays.
_IRQL_requires_max_(APC_LEVEL) VOID NTAPI ExAcquireFastMutexUnsafe(PFAST_MUTEX FastMutex)
    _Acquires_lock_(FastMutex);
_IRQL_requires_max_(APC_LEVEL) VOID NTAPI ExReleaseFastMutexUnsafe(PFAST_MUTEX FastMutex)
    _Releases_lock_(FastMutex);
_IRQL_requires_max_(APC_LEVEL) BOOLEAN NTAPI ExTryToAcquireFastMutex(PFAST_MUTEX FastMutex)
    SAL_TSA(try_acquire_capability(1, FastMutex));

LONG NTAPI InterlockedIncrement(LONG volatile* Addend);
LONG NTAPI InterlockedDecrement(LONG volatile* Addend);
LONG NTAPI InterlockedExchange(LONG volatile* Target, LONG Value);
LONG NTAPI InterlockedExchangeAdd(LONG volatile* Addend, LONG Value);
LONG NTAPI InterlockedCompareExchange(LONG volatile* Destination, LONG ExChange, LONG Comparand);
LONG NTAPI InterlockedOr(LONG volatile* Destination, LONG Value);
LONG NTAPI InterlockedAnd(LONG volatile* Destination, LONG Value);
LONG NTAPI InterlockedXor(LONG volatile* Destination, LONG Value);
LONG64 NTAPI InterlockedIncrement64(LONG64 volatile* Addend);
LONG64 NTAPI InterlockedDecrement64(LONG64 volatile* Addend);
LONG64 NTAPI InterlockedExchange64(LONG64 volatile* Target, LONG64 Value);
LONG64 NTAPI InterlockedExchangeAdd64(LONG64 volatile* Addend, LONG64 Value);
LONG64 NTAPI InterlockedCompareExchange64(LONG64 volatile* Destination, LONG64 ExChange, LONG64 Comparand);
PVOID NTAPI InterlockedExchangePointer(PVOID volatile* Target, PVOID Value);
PVOID NTAPI InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID ExChange, PVOID Comparand);

} // extern "C"

inline VOID ExInitializeFastMutex(PFAST_MUTEX FastMutex)
{
    FastMutex->Count = FM_LOCK_BIT;
    FastMutex->Owner = nullptr;
    FastMutex->Contention = 0;
    KeInitializeEvent(&FastMutex->Event, SynchronizationEvent, FALSE);
}

#define ORDERED_ACCESS(Name, type)                                                                           \
    inline type Read##Name##NoFence(type const volatile* Source)                                             \
    {                                                                                                        \
        return __atomic_load_n(Source, __ATOMIC_RELAXED);                                                    \
    }                                                                                                        \
    inline type Read##Name##Acquire(type const volatile* Source)                                             \
    {                                                                                                        \
        return __atomic_load_n(Source, __ATOMIC_ACQUIRE);                                                    \
    }                                                                                                        \
    inline VOID Write##Name##NoFence(type volatile* Destination, type Value)                                 \
    {                                                                                                        \
        __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);                                              \
    }                                                                                                        \
    inline VOID Write##Name##Release(type volatile* Destination, type Value)                                 \
    {                                                                                                        \
        __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);                                              \
    }
ORDERED_ACCESS(, LONG)
ORDERED_ACCESS(64, LONG64)
ORDERED_ACCESS(UChar, UCHAR)
ORDERED_ACCESS(Boolean, BOOLEAN)
ORDERED_ACCESS(UShort, USHORT)
ORDERED_ACCESS(ULong, ULONG)
ORDERED_ACCESS(ULong64, ULONG64)
ORDERED_ACCESS(Pointer, PVOID)
#undef ORDERED_ACCESS

inline VOID KeMemoryBarrier()
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}
