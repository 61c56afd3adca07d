// Interlocked operations. Each is a point where a simulated kernel may switch threads: before it, because
// what was read so far may be stale by then, and after it, because others may act on it at once.
#include "ke/kernel.h"

#include <wdm/ex.h>

using host::KiYield;
using host::YieldPoint;

namespace {

template <class Operation>
auto Interlocked(Operation operation)
{
    KiYield(YieldPoint::Interlocked);
    const auto result = operation();
    KiYield(YieldPoint::Interlocked);
    return result;
}

template <class Integer>
Integer Add(volatile Integer* target, Integer value)
{
    return Interlocked([=] { return __atomic_add_fetch(target, value, __ATOMIC_SEQ_CST); });
}

template <class Integer>
Integer ExchangeAdd(volatile Integer* target, Integer value)
{
    return Interlocked([=] { return __atomic_fetch_add(target, value, __ATOMIC_SEQ_CST); });
}

template <class Value>
Value Exchange(Value volatile* target, Value value)
{
    return Interlocked([=] { return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST); });
}

template <class Value>
Value CompareExchange(Value volatile* target, Value desired, Value expected)
{
    return Interlocked([=] {
        Value found = expected;
        __atomic_compare_exchange_n(target, &found, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
        return found;
    });
}

} // namespace

LONG NTAPI InterlockedIncrement(LONG volatile* Addend)
{
    return Add(Addend, 1);
}

LONG NTAPI InterlockedDecrement(LONG volatile* Addend)
{
    return Add(Addend, -1);
}

LONG NTAPI InterlockedExchange(LONG volatile* Target, LONG Value)
{
    return Exchange(Target, Value);
}

LONG NTAPI InterlockedExchangeAdd(LONG volatile* Addend, LONG Value)
{
    return ExchangeAdd(Addend, Value);
}

LONG NTAPI InterlockedCompareExchange(LONG volatile* Destination, LONG ExChange, LONG Comparand)
{
    return CompareExchange(Destination, ExChange, Comparand);
}

LONG NTAPI InterlockedOr(LONG volatile* Destination, LONG Value)
{
    return Interlocked([=] { return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST); });
}

LONG NTAPI InterlockedAnd(LONG volatile* Destination, LONG Value)
{
    return Interlocked([=] { return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST); });
}

LONG NTAPI InterlockedXor(LONG volatile* Destination, LONG Value)
{
    return Interlocked([=] { return __atomic_fetch_xor(Destination, Value, __ATOMIC_SEQ_CST); });
}

LONG64 NTAPI InterlockedIncrement64(LONG64 volatile* Addend)
{
    return Add(Addend, 1LL);
}

LONG64 NTAPI InterlockedDecrement64(LONG64 volatile* Addend)
{
    return Add(Addend, -1LL);
}

LONG64 NTAPI InterlockedExchange64(LONG64 volatile* Target, LONG64 Value)
{
    return Exchange(Target, Value);
}

LONG64 NTAPI InterlockedExchangeAdd64(LONG64 volatile* Addend, LONG64 Value)
{
    return ExchangeAdd(Addend, Value);
}

LONG64 NTAPI InterlockedCompareExchange64(LONG64 volatile* Destination, LONG64 ExChange, LONG64 Comparand)
{
    return CompareExchange(Destination, ExChange, Comparand);
}

PVOID NTAPI InterlockedExchangePointer(PVOID volatile* Target, PVOID Value)
{
    return Exchange(Target, Value);
}

PVOID NTAPI InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID ExChange, PVOID Comparand)
{
    return CompareExchange(Destination, ExChange, Comparand);
}
