// Each rule of the verifier's core is broken by a fragment of its own: the finding must be that one and no other.
#include "recorded.h"

#include <etw/providers.h>
#include <gtest/gtest.h>
#include <wdm/etw.h>
#include <wdm/ex.h>
#include <wdm/io.h>
#include <wdm/ps.h>
#include <wdm/rtl.h>

namespace host {
namespace {

constexpr ULONG kTag = 'tseT'; // "Test"

struct BrokenDriver {
    const char* name;
    const char* rules; // expected findings, in order
    void (*run)(Kernel& kernel);
};

void PrintTo(const BrokenDriver& driver, std::ostream* out)
{
    *out << driver.name;
}

// What a driver keeps in non-paged memory.
struct Extension {
    KSPIN_LOCK lock;
    KSPIN_LOCK second_lock;
    FAST_MUTEX mutex;
    FAST_MUTEX second_mutex;
    KEVENT event;
    KTIMER timer;
    KDPC dpc;
};

VOID NTAPI EmptyDpc(PKDPC /*Dpc*/, PVOID /*context*/, PVOID /*argument1*/, PVOID /*argument2*/) {}

Extension* NewExtension(POOL_TYPE type = NonPagedPool)
{
    auto* const extension = static_cast<Extension*>(ExAllocatePoolWithTag(type, sizeof(Extension), kTag));
    RtlZeroMemory(extension, sizeof *extension);
    if (type != NonPagedPool)
        return extension;
    KeInitializeSpinLock(&extension->lock);
    KeInitializeSpinLock(&extension->second_lock);
    ExInitializeFastMutex(&extension->mutex);
    ExInitializeFastMutex(&extension->second_mutex);
    KeInitializeEvent(&extension->event, NotificationEvent, FALSE);
    KeInitializeTimer(&extension->timer);
    KeInitializeDpc(&extension->dpc, EmptyDpc, extension);
    return extension;
}

// An extension that is freed at the end of the fragment.
struct Scope {
    Extension* const it = NewExtension();
    Extension* operator->() const { return it; }
    ~Scope() { ExFreePoolWithTag(it, kTag); }
};

NTSTATUS Wait(PVOID object, Time time, KPROCESSOR_MODE mode = KernelMode)
{
    LARGE_INTEGER timeout = Relative(time);
    return KeWaitForSingleObject(object, Executive, mode, FALSE, &timeout);
}

// At an IRQL; back at PASSIVE_LEVEL after it.
struct AtIrql {
    explicit AtIrql(KIRQL irql) : old(KfRaiseIrql(irql)) {}
    ~AtIrql() { KeLowerIrql(old); }
    KIRQL old;
};

const BrokenDriver kPool[] = {
    {"ZeroBytes", "PoolZeroBytes", [](Kernel&) { ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 0, kTag)); }},
    {"PagedAtDispatch", "IrqlExAllocatePaged IrqlExFreePaged",
     [](Kernel&) {
         const AtIrql raised(DISPATCH_LEVEL);
         ExFreePool(ExAllocatePoolWithTag(PagedPool, 8, kTag));
     }},
    {"AboveDispatch", "IrqlExAllocatePool IrqlExFreePool",
     [](Kernel&) {
         const AtIrql raised(5);
         ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 8, kTag));
     }},
    {"FreeOfForeignMemory", "PoolFreeUnknown",
     [](Kernel&) {
         int local = 0;
         ExFreePool(&local);
     }},
    {"FreeOfTheMiddle", "PoolFreeUnknown",
     [](Kernel&) {
         auto* const block = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPool, 64, kTag));
         ExFreePool(block + 16);
         ExFreePool(block);
     }},
    {"DoubleFree", "PoolDoubleFree",
     [](Kernel&) {
         PVOID const block = ExAllocatePoolWithTag(NonPagedPool, 64, kTag);
         ExFreePool(block);
         ExFreePool(block);
     }},
    {"WrongTag", "PoolWrongTag",
     [](Kernel&) { ExFreePoolWithTag(ExAllocatePoolWithTag(NonPagedPool, 64, kTag), 'rehO'); }},
    {"Leak", "PoolLeak", [](Kernel&) { ExAllocatePoolWithTag(NonPagedPool, 64, kTag); }},
    {"AllocationInUnload", "PoolAllocationInUnload",
     [](Kernel&) {
         VfBeginUnload();
         ExFreePool(ExAllocatePoolWithTag(NonPagedPool, 64, kTag));
         VfEndUnload();
     }},
    {"SystemObject", "PoolFreeSystemObject",
     [](Kernel&) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         ExFreePool(item);
         IoFreeWorkItem(item);
     }},
    {"ArmedTimer", "PoolFreeActiveTimer",
     [](Kernel&) {
         Extension* const extension = NewExtension();
         KeSetTimer(&extension->timer, Relative(kSecond), nullptr);
         ExFreePool(extension);
     }},
    {"QueuedDpc", "PoolFreeQueuedDpc",
     [](Kernel&) {
         Extension* const extension = NewExtension();
         KeInsertQueueDpc(&extension->dpc, nullptr, nullptr);
         ExFreePool(extension);
     }},
    {"HeldSpinLock", "PoolFreeHeldLock",
     [](Kernel&) {
         Extension* const extension = NewExtension();
         KeAcquireSpinLockRaiseToDpc(&extension->lock);
         ExFreePool(extension);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"HeldFastMutex", "PoolFreeHeldLock",
     [](Kernel&) {
         Extension* const extension = NewExtension();
         ExAcquireFastMutex(&extension->mutex);
         ExFreePool(extension);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"WaitedEvent", "PoolFreeWaitedObject PoolUseAfterFree", // the wait that times out touches it once more
     [](Kernel& kernel) {
         Extension* const extension = NewExtension();
         const ThreadHandle waiter = kernel.Spawn("waiter", [&] { Wait(&extension->event, kSecond); });
         kernel.RunUntilIdle();
         ExFreePool(extension);
     }},
};

const BrokenDriver kIrql[] = {
    {"RaiseToLower", "IrqlKeRaise",
     [](Kernel&) {
         const AtIrql raised(DISPATCH_LEVEL);
         KfRaiseIrql(PASSIVE_LEVEL);
     }},
    {"LowerToHigher", "IrqlKeLower",
     [](Kernel&) {
         KeLowerIrql(APC_LEVEL);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"SetEventTooHigh", "IrqlKeSetEvent",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(5);
         KeSetEvent(&scope->event, 0, FALSE);
     }},
    {"SetEventAndWaitAtDispatch", "IrqlKeSetEvent",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(DISPATCH_LEVEL);
         KeSetEvent(&scope->event, 0, TRUE);
     }},
    {"ResetEventTooHigh", "IrqlKeDispatchLte",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(5);
         KeResetEvent(&scope->event);
     }},
    {"TimerTooHigh", "IrqlKeDispatchLte",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(5);
         KeCancelTimer(&scope->timer);
     }},
    {"WaitAtDispatch", "IrqlKeWaitAtDispatch",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(DISPATCH_LEVEL);
         Wait(&scope->event, kMillisecond);
     }},
    {"WaitForEverAtDispatch", "IrqlKeWaitAtDispatch",
     [](Kernel&) {
         const Scope scope;
         KeSetEvent(&scope->event, 0, FALSE);
         const AtIrql raised(DISPATCH_LEVEL);
         KeWaitForSingleObject(&scope->event, Executive, KernelMode, FALSE, nullptr);
     }},
    {"DelayAtDispatch", "IrqlKeApcLte",
     [](Kernel& kernel) {
         const AtIrql raised(DISPATCH_LEVEL);
         kernel.RunFor(kMillisecond);
     }},
    {"FlushAtDispatch", "IrqlPassive",
     [](Kernel&) {
         const AtIrql raised(DISPATCH_LEVEL);
         KeFlushQueuedDpcs();
     }},
    {"CriticalRegionAtDispatch", "IrqlCriticalRegion IrqlCriticalRegion",
     [](Kernel&) {
         const AtIrql raised(DISPATCH_LEVEL);
         KeEnterCriticalRegion();
         KeLeaveCriticalRegion();
     }},
    {"CriticalRegionLeftTwice", "CriticalRegions",
     [](Kernel&) {
         KeLeaveCriticalRegion();
         KeEnterCriticalRegion();
     }},
    {"CriticalRegionNotLeft", "CriticalRegions",
     [](Kernel& kernel) { kernel.Spawn("thread", [] { KeEnterCriticalRegion(); }).Join(); }},
    {"DpcReturnsAtPassive", "IrqlReturn",
     [](Kernel&) {
         KDPC dpc;
         KeInitializeDpc(
             &dpc, [](PKDPC, PVOID, PVOID, PVOID) NTAPI { KeLowerIrql(PASSIVE_LEVEL); }, nullptr);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
         KeFlushQueuedDpcs();
     }},
    {"ThreadEndsAtDispatch", "IrqlReturn",
     [](Kernel& kernel) { kernel.Spawn("thread", [] { KfRaiseIrql(DISPATCH_LEVEL); }).Join(); }},
    {"SystemRoutineAtDispatch", "IrqlPassive",
     [](Kernel&) {
         const AtIrql raised(DISPATCH_LEVEL);
         RtlIsNtDdiVersionAvailable(NTDDI_VISTA);
     }},
};

const BrokenDriver kLocks[] = {
    {"SpinAtHighIrql", "SpinLockIrql IrqlKeReleaseSpinLock",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(5);
         KeReleaseSpinLock(&scope->lock, KeAcquireSpinLockRaiseToDpc(&scope->lock));
     }},
    {"AtDpcLevelAtPassive", "SpinLockIrql IrqlKeReleaseSpinLock",
     [](Kernel&) {
         const Scope scope;
         KeAcquireSpinLockAtDpcLevel(&scope->lock);
         KeReleaseSpinLockFromDpcLevel(&scope->lock);
     }},
    {"LoweredWithSpinLock", "SpinLockIrql IrqlKeReleaseSpinLock",
     [](Kernel&) {
         const Scope scope;
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&scope->lock);
         KeLowerIrql(old);
         KeReleaseSpinLock(&scope->lock, old);
     }},
    {"ReleasedToAnotherIrql", "SpinLockWrongOldIrql",
     [](Kernel&) {
         const Scope scope;
         KeAcquireSpinLockRaiseToDpc(&scope->lock);
         KeReleaseSpinLock(&scope->lock, APC_LEVEL);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"SpinRecursion", "SpinLockRecursion",
     [](Kernel&) {
         const Scope scope;
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&scope->lock);
         const KIRQL inner = KeAcquireSpinLockRaiseToDpc(&scope->lock);
         KeReleaseSpinLock(&scope->lock, inner);
         KeReleaseSpinLock(&scope->lock, old);
     }},
    {"SpinOrder", "LockOrder",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(DISPATCH_LEVEL);
         for (const bool swapped : {false, true}) {
             KSPIN_LOCK* const outer = swapped ? &scope->second_lock : &scope->lock;
             KSPIN_LOCK* const inner = swapped ? &scope->lock : &scope->second_lock;
             KeAcquireSpinLockAtDpcLevel(outer);
             KeAcquireSpinLockAtDpcLevel(inner);
             KeReleaseSpinLockFromDpcLevel(inner);
             KeReleaseSpinLockFromDpcLevel(outer);
         }
     }},
    {"OrderOfThree", "LockOrder",
     [](Kernel&) {
         FAST_MUTEX mutexes[3];
         for (FAST_MUTEX& mutex : mutexes)
             ExInitializeFastMutex(&mutex);
         for (int i = 0; i < 3; ++i) {
             ExAcquireFastMutex(&mutexes[i]);
             ExAcquireFastMutex(&mutexes[(i + 1) % 3]);
             ExReleaseFastMutex(&mutexes[(i + 1) % 3]);
             ExReleaseFastMutex(&mutexes[i]);
         }
     }},
    {"SpinUninitialized", "SpinLockUninitialized",
     [](Kernel&) {
         KSPIN_LOCK lock = 0;
         KeReleaseSpinLock(&lock, KeAcquireSpinLockRaiseToDpc(&lock));
         KeReleaseSpinLock(&lock, KeAcquireSpinLockRaiseToDpc(&lock)); // reported once
     }},
    {"SpinReleaseOrder", "LockReleaseOrder",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(DISPATCH_LEVEL);
         KeAcquireSpinLockAtDpcLevel(&scope->lock);
         KeAcquireSpinLockAtDpcLevel(&scope->second_lock);
         KeReleaseSpinLockFromDpcLevel(&scope->lock);
         KeReleaseSpinLockFromDpcLevel(&scope->second_lock);
     }},
    {"SpinReleasedByAnother", "SpinLockWrongOwner",
     [](Kernel& kernel) {
         const Scope scope;
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&scope->lock);
         ThreadHandle other = kernel.Spawn("other", [&] {
             const AtIrql raised(DISPATCH_LEVEL);
             KeReleaseSpinLockFromDpcLevel(&scope->lock);
         });
         while (!other.Done())
             KeStallExecutionProcessor(1);
         KeReleaseSpinLock(&scope->lock, old);
     }},
    {"SpinReleasedTwice", "SpinLockWrongOwner",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(DISPATCH_LEVEL);
         KeAcquireSpinLockAtDpcLevel(&scope->lock);
         KeReleaseSpinLockFromDpcLevel(&scope->lock);
         KeReleaseSpinLockFromDpcLevel(&scope->lock);
     }},
    {"SpinInitializedWhileHeld", "SpinLockDoubleInit SpinLockWrongOwner LockHeldAtReturn",
     [](Kernel& kernel) {
         const Scope scope;
         kernel
             .Spawn("thread",
                    [&] {
                        const KIRQL old = KeAcquireSpinLockRaiseToDpc(&scope->lock);
                        KeInitializeSpinLock(&scope->lock);
                        KeReleaseSpinLock(&scope->lock, old);
                    })
             .Join();
     }},
    {"MutexAtDispatch", "FastMutexIrql FastMutexReleaseIrql",
     [](Kernel&) {
         const Scope scope;
         const AtIrql raised(DISPATCH_LEVEL);
         ExAcquireFastMutex(&scope->mutex);
         ExReleaseFastMutex(&scope->mutex);
     }},
    {"MutexReleasedAtPassive", "FastMutexReleaseIrql",
     [](Kernel&) {
         const Scope scope;
         ExAcquireFastMutex(&scope->mutex);
         KeLowerIrql(PASSIVE_LEVEL);
         ExReleaseFastMutex(&scope->mutex);
     }},
    {"MutexRecursion", "FastMutexRecursion",
     [](Kernel&) {
         const Scope scope;
         ExAcquireFastMutex(&scope->mutex);
         ExAcquireFastMutex(&scope->mutex);
         ExReleaseFastMutex(&scope->mutex);
         ExReleaseFastMutex(&scope->mutex);
     }},
    {"MutexReleasedByAnother", "FastMutexWrongOwner",
     [](Kernel& kernel) {
         const Scope scope;
         ExAcquireFastMutex(&scope->mutex);
         kernel
             .Spawn("other",
                    [&] {
                        const AtIrql raised(APC_LEVEL);
                        ExReleaseFastMutex(&scope->mutex);
                    })
             .Join();
         ExReleaseFastMutex(&scope->mutex);
     }},
    {"MutexUninitialized", "FastMutexUninitialized",
     [](Kernel&) {
         FAST_MUTEX mutex = {};
         ExAcquireFastMutex(&mutex);
         ExReleaseFastMutex(&mutex);
     }},
    {"MutexInitializedWhileHeld", "SpinLockDoubleInit",
     [](Kernel&) {
         const Scope scope;
         ExAcquireFastMutex(&scope->mutex);
         ExInitializeFastMutex(&scope->mutex);
         KeLowerIrql(PASSIVE_LEVEL);
     }},
    {"ThreadEndsWithMutex", "LockHeldAtReturn IrqlReturn PoolFreeHeldLock",
     [](Kernel& kernel) {
         const Scope scope;
         kernel.Spawn("thread", [&] { ExAcquireFastMutex(&scope->mutex); }).Join();
     }},
    {"DpcEndsWithSpinLock", "LockHeldAtReturn PoolFreeHeldLock",
     [](Kernel&) {
         const Scope scope;
         KeInitializeDpc(
             &scope->dpc,
             [](PKDPC, PVOID context, PVOID, PVOID)
                 NTAPI { KeAcquireSpinLockAtDpcLevel(&static_cast<Extension*>(context)->lock); },
             scope.it);
         KeInsertQueueDpc(&scope->dpc, nullptr, nullptr);
         KeFlushQueuedDpcs();
     }},
};

const BrokenDriver kObjects[] = {
    {"UserWaitOnStack", "WaitUserModeOnStack",
     [](Kernel&) {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, TRUE);
         Wait(&event, kSecond, UserMode);
     }},
    {"EventUninitialized", "ObjectUninitialized",
     [](Kernel&) {
         KEVENT event = {};
         KeSetEvent(&event, 0, FALSE);
     }},
    {"TimerUninitialized", "ObjectUninitialized",
     [](Kernel&) {
         KTIMER timer = {};
         KeSetTimer(&timer, Relative(kMillisecond), nullptr);
         KeCancelTimer(&timer);
     }},
    {"DpcUninitialized", "ObjectUninitialized",
     [](Kernel&) {
         KDPC dpc = {};
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
     }},
    {"TimerInitializedWhileArmed", "ObjectReinitialized",
     [](Kernel&) {
         const Scope scope;
         KeSetTimer(&scope->timer, Relative(kSecond), nullptr);
         KeInitializeTimer(&scope->timer);
     }},
    {"DpcInitializedWhileQueued", "ObjectReinitialized",
     [](Kernel&) {
         const Scope scope;
         KeInsertQueueDpc(&scope->dpc, nullptr, nullptr);
         KeInitializeDpc(&scope->dpc, EmptyDpc, nullptr);
     }},
    {"EventInitializedWhileWaitedFor", "ObjectReinitialized",
     [](Kernel& kernel) {
         KEVENT event;
         KeInitializeEvent(&event, NotificationEvent, FALSE);
         const ThreadHandle waiter = kernel.Spawn("waiter", [&] { Wait(&event, kSecond); });
         kernel.RunUntilIdle();
         const LIST_ENTRY waiters = event.Header.WaitListHead;
         KeInitializeEvent(&event, NotificationEvent, FALSE);
         event.Header.WaitListHead = waiters; // so that the waiter survives it
     }},
    {"EventInPagedPool", "DispatcherInPagedPool",
     [](Kernel&) {
         Extension* const paged = NewExtension(PagedPool);
         KeInitializeEvent(&paged->event, NotificationEvent, FALSE);
         ExFreePool(paged);
     }},
    {"SpinLockInPagedPool", "DispatcherInPagedPool",
     [](Kernel&) {
         Extension* const paged = NewExtension(PagedPool);
         KeInitializeSpinLock(&paged->lock);
         ExFreePool(paged);
     }},
    {"TimerArmedAtUnload", "TimerAlive",
     [](Kernel&) {
         static KTIMER timer;
         KeInitializeTimer(&timer);
         KeSetTimer(&timer, Relative(kSecond), nullptr);
         VfAuditUnload("broken");
         KeCancelTimer(&timer);
     }},
    {"DpcQueuedAtUnload", "DpcAlive",
     [](Kernel&) {
         static KDPC dpc;
         KeInitializeDpc(&dpc, EmptyDpc, nullptr);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
         VfAuditUnload("broken");
         KeFlushQueuedDpcs();
     }},
    {"WorkItemQueuedAtUnload", "WorkItemAlive",
     [](Kernel& kernel) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         IoQueueWorkItem(
             item,
             [](PDEVICE_OBJECT, PVOID context) NTAPI { IoFreeWorkItem(static_cast<PIO_WORKITEM>(context)); },
             DelayedWorkQueue, item);
         VfAuditUnload("broken");
         kernel.RunUntilIdle();
     }},
    {"WorkItemNeverFreed", "WorkItemLeak", [](Kernel&) { IoAllocateWorkItem(nullptr); }},
    {"WorkItemFreedWhileQueued", "WorkItemFreedQueued WorkItemLeak",
     [](Kernel& kernel) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         IoQueueWorkItem(
             item, [](PDEVICE_OBJECT, PVOID) NTAPI {}, CriticalWorkQueue, nullptr);
         IoFreeWorkItem(item);
         kernel.RunUntilIdle();
     }},
    {"WorkItemQueuedTwice", "WorkItemFreedQueued",
     [](Kernel& kernel) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         IoQueueWorkItem(
             item, [](PDEVICE_OBJECT, PVOID) NTAPI {}, CriticalWorkQueue, nullptr);
         IoQueueWorkItem(
             item, [](PDEVICE_OBJECT, PVOID) NTAPI {}, CriticalWorkQueue, nullptr);
         kernel.RunUntilIdle();
         IoFreeWorkItem(item);
     }},
    {"WorkItemFreedTwice", "WorkItemUnknown",
     [](Kernel&) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         IoFreeWorkItem(item);
         IoFreeWorkItem(item);
     }},
    {"WorkItemReturnsAtDispatch", "IrqlReturn",
     [](Kernel& kernel) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         IoQueueWorkItem(
             item, [](PDEVICE_OBJECT, PVOID) NTAPI { KfRaiseIrql(DISPATCH_LEVEL); }, CriticalWorkQueue,
             nullptr);
         kernel.RunUntilIdle();
         IoFreeWorkItem(item);
     }},
    {"SystemThreadRunsOn", "ThreadAlive",
     [](Kernel&) {
         static KEVENT never;
         KeInitializeEvent(&never, NotificationEvent, FALSE);
         HANDLE thread = nullptr;
         PsCreateSystemThread(
             &thread, 0, nullptr, nullptr, nullptr,
             [](PVOID) NTAPI { KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr); },
             nullptr);
     }},
    {"EtwNotUnregistered", "EtwStillRegistered",
     [](Kernel&) {
         REGHANDLE handle = 0;
         const GUID id = {};
         EtwRegister(&id, nullptr, nullptr, &handle);
     }},
    {"DpcTooLong", "DpcWatchdog",
     [](Kernel&) {
         KDPC dpc;
         KeInitializeDpc(
             &dpc, [](PKDPC, PVOID, PVOID, PVOID) NTAPI { KeStallExecutionProcessor(600'000); }, nullptr);
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
         KeFlushQueuedDpcs();
     }},
    {"StringOfOddLength", "MalformedString",
     [](Kernel&) {
         WCHAR text[] = L"PsGetVersion";
         UNICODE_STRING name = {5, sizeof text, text};
         MmGetSystemRoutineAddress(&name);
     }},
    {"StringBeyondItsMaximum", "MalformedString",
     [](Kernel&) {
         WCHAR text[] = L"PsGetVersion";
         UNICODE_STRING name = {8, 4, text};
         MmGetSystemRoutineAddress(&name);
     }},
    {"ExceptionThatNobodyJoins", "UnhandledException",
     [](Kernel& kernel) { (void)kernel.Spawn("thrower", [] { throw std::runtime_error("no"); }); }},
};

class Rules : public ::testing::TestWithParam<BrokenDriver> {};

TEST_P(Rules, AreReportedAndNothingElse)
{
    const std::vector<Finding> findings = Record([](Kernel& kernel) { GetParam().run(kernel); });
    EXPECT_EQ(RuleNames(findings), GetParam().rules);
    for (const Finding& finding : findings) {
        EXPECT_FALSE(finding.actor.empty());
        EXPECT_NE(FormatFinding(finding).find(NameOf(finding.rule)), std::string::npos);
    }
}

std::string CaseName(const ::testing::TestParamInfo<BrokenDriver>& info)
{
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Pool, Rules, ::testing::ValuesIn(kPool), CaseName);
INSTANTIATE_TEST_SUITE_P(Irql, Rules, ::testing::ValuesIn(kIrql), CaseName);
INSTANTIATE_TEST_SUITE_P(Locks, Rules, ::testing::ValuesIn(kLocks), CaseName);
INSTANTIATE_TEST_SUITE_P(Objects, Rules, ::testing::ValuesIn(kObjects), CaseName);

// The same objects, used as they should be.
TEST(Verifier, SaysNothingOfADriverThatBehaves)
{
    const std::vector<Finding> findings = Record([](Kernel& kernel) {
        const Scope scope;
        KeSetTimer(&scope->timer, Relative(kMillisecond), &scope->dpc);
        ExAcquireFastMutex(&scope->mutex);
        KIRQL old = KeAcquireSpinLockRaiseToDpc(&scope->lock);
        KeAcquireSpinLockAtDpcLevel(&scope->second_lock);
        KeSetEvent(&scope->event, 0, FALSE);
        Wait(&scope->event, 0);
        KeReleaseSpinLockFromDpcLevel(&scope->second_lock);
        KeReleaseSpinLock(&scope->lock, old);
        ExReleaseFastMutex(&scope->mutex);
        kernel.RunFor(kSecond);
        KeFlushQueuedDpcs();
        PVOID const paged = ExAllocatePoolWithTag(PagedPool, 100, kTag);
        RtlZeroMemory(paged, 100);
        old = KfRaiseIrql(APC_LEVEL);
        ExFreePoolWithTag(paged, kTag);
        KeLowerIrql(old);
    });
    EXPECT_EQ(RuleNames(findings), "");
}

TEST(Verifier, AnExcuseCoversItsRuleAndDetailOnly)
{
    const auto leak = [](Kernel& kernel) {
        kernel.GetVerifier().AddExcuse(
            {.rule = Rule::PoolLeak, .detail = "Kept", .reason = "kept on purpose"});
        ExAllocatePoolWithTag(NonPagedPool, 8, 'tpeK');
        ExAllocatePoolWithTag(NonPagedPool, 8, kTag);
        VfAuditUnload("broken");
        ASSERT_EQ(kernel.GetVerifier().Excused().size(), 1u);
        EXPECT_EQ(kernel.GetVerifier().Excused()[0].reason, "kept on purpose");
    };
    const std::vector<Finding> findings = Record(leak);
    ASSERT_EQ(RuleNames(findings), "PoolLeak");
    EXPECT_EQ(findings[0].detail, "Test");
}

TEST(Verifier, OffItChecksNothing)
{
    const std::vector<Finding> findings = Record({.verifier = false}, [](Kernel&) {
        ExFreePoolWithTag(ExAllocatePoolWithTag(PagedPool, 8, kTag), 'rehO');
        const AtIrql raised(5);
        KSPIN_LOCK lock = 0;
        KeReleaseSpinLock(&lock, KeAcquireSpinLockRaiseToDpc(&lock));
    });
    EXPECT_EQ(RuleNames(findings), "");
}

} // namespace
} // namespace host
