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
constexpr KIRQL kTooHigh = 5;

// What a driver keeps in non-paged memory.
struct Driver {
    Kernel* kernel;
    KSPIN_LOCK lock;
    KSPIN_LOCK second_lock;
    FAST_MUTEX mutex;
    KEVENT event;
    KTIMER timer;
    KDPC dpc;
};

// Runs at `irql`; the driver's memory is freed after it.
struct BrokenDriver {
    const char* name;
    const char* rules; // expected findings, in order
    void (*run)(Driver& driver);
    KIRQL irql = PASSIVE_LEVEL;
};

void PrintTo(const BrokenDriver& driver, std::ostream* out)
{
    *out << driver.name;
}

VOID NTAPI EmptyDpc(PKDPC /*Dpc*/, PVOID /*context*/, PVOID /*argument1*/, PVOID /*argument2*/) {}

PVOID Allocate(POOL_TYPE type = NonPagedPool, SIZE_T size = 64)
{
    return ExAllocatePoolWithTag(type, size, kTag);
}

Driver* Load(Kernel& kernel)
{
    auto* const driver = static_cast<Driver*>(Allocate(NonPagedPool, sizeof(Driver)));
    RtlZeroMemory(driver, sizeof *driver);
    driver->kernel = &kernel;
    KeInitializeSpinLock(&driver->lock);
    KeInitializeSpinLock(&driver->second_lock);
    ExInitializeFastMutex(&driver->mutex);
    KeInitializeEvent(&driver->event, NotificationEvent, FALSE);
    KeInitializeTimer(&driver->timer);
    KeInitializeDpc(&driver->dpc, EmptyDpc, driver);
    return driver;
}

// Memory goes at the IRQL that the fragment leaves behind, unless it was raised for it.
void RunIn(Kernel& kernel, void (*fragment)(Driver&), KIRQL irql = PASSIVE_LEVEL)
{
    Driver* const driver = Load(kernel);
    if (irql != PASSIVE_LEVEL)
        KfRaiseIrql(irql);
    fragment(*driver);
    if (irql != PASSIVE_LEVEL)
        KeLowerIrql(PASSIVE_LEVEL);
    ExFreePoolWithTag(driver, kTag);
    KeLowerIrql(PASSIVE_LEVEL);
}

NTSTATUS Wait(PVOID object, Time time, KPROCESSOR_MODE mode = KernelMode)
{
    LARGE_INTEGER timeout = Relative(time);
    return KeWaitForSingleObject(object, Executive, mode, FALSE, &timeout);
}

ThreadHandle WaiterFor(Driver& driver, KEVENT& event)
{
    ThreadHandle waiter = driver.kernel->Spawn("waiter", [&event] { Wait(&event, kSecond); });
    driver.kernel->RunUntilIdle();
    return waiter;
}

void RunThread(Driver& driver, const std::function<void()>& body)
{
    driver.kernel->Spawn("thread", body).Join();
}

void RunDpc(Driver& driver, PKDEFERRED_ROUTINE routine)
{
    KeInitializeDpc(&driver.dpc, routine, &driver);
    KeInsertQueueDpc(&driver.dpc, nullptr, nullptr);
    KeFlushQueuedDpcs();
}

PIO_WORKITEM QueuedWorkItem(PIO_WORKITEM_ROUTINE routine)
{
    const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
    IoQueueWorkItem(item, routine, CriticalWorkQueue, item);
    return item;
}

VOID NTAPI EmptyWork(PDEVICE_OBJECT, PVOID) {}

const BrokenDriver kPool[] = {
    {"ZeroBytes", "PoolZeroBytes", [](Driver&) { ExFreePool(Allocate(NonPagedPool, 0)); }},
    {"PagedAtDispatch", "IrqlExAllocatePaged IrqlExFreePaged",
     [](Driver&) { ExFreePool(Allocate(PagedPool)); }, DISPATCH_LEVEL},
    {"AboveDispatch", "IrqlExAllocatePool IrqlExFreePool", [](Driver&) { ExFreePool(Allocate()); }, kTooHigh},
    {"FreeOfForeignMemory", "PoolFreeUnknown",
     [](Driver&) {
         int local = 0;
         ExFreePool(&local);
     }},
    {"FreeOfTheMiddle", "PoolFreeUnknown", [](Driver& d) { ExFreePool(&d.event); }},
    {"DoubleFree", "PoolDoubleFree",
     [](Driver&) {
         PVOID const block = Allocate();
         ExFreePool(block);
         ExFreePool(block);
     }},
    {"WrongTag", "PoolWrongTag", [](Driver&) { ExFreePoolWithTag(Allocate(), 'rehO'); }},
    {"Leak", "PoolLeak", [](Driver&) { Allocate(); }},
    {"AllocationInUnload", "PoolAllocationInUnload",
     [](Driver&) {
         VfBeginUnload();
         ExFreePool(Allocate());
         VfEndUnload();
     }},
    {"SystemObject", "PoolFreeSystemObject",
     [](Driver&) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         ExFreePool(item);
         IoFreeWorkItem(item);
     }},
    {"ArmedTimer", "PoolFreeActiveTimer",
     [](Driver& d) { KeSetTimer(&d.timer, Relative(kSecond), nullptr); }},
    {"QueuedDpc", "PoolFreeQueuedDpc", [](Driver& d) { KeInsertQueueDpc(&d.dpc, nullptr, nullptr); }},
    {"HeldSpinLock", "PoolFreeHeldLock", [](Driver& d) { KeAcquireSpinLockRaiseToDpc(&d.lock); }},
    {"HeldFastMutex", "PoolFreeHeldLock", [](Driver& d) { ExAcquireFastMutex(&d.mutex); }},
    {"WaitedEvent", "PoolFreeWaitedObject PoolUseAfterFree", // the wait that times out touches it once more
     [](Driver& d) {
         Driver* const another = Load(*d.kernel);
         const ThreadHandle waiter = WaiterFor(d, another->event);
         ExFreePool(another);
     }},
};

const BrokenDriver kIrql[] = {
    {"RaiseToLower", "IrqlKeRaise", [](Driver&) { KfRaiseIrql(PASSIVE_LEVEL); }, DISPATCH_LEVEL},
    {"LowerToHigher", "IrqlKeLower", [](Driver&) { KeLowerIrql(APC_LEVEL); }},
    {"SetEventTooHigh", "IrqlKeSetEvent", [](Driver& d) { KeSetEvent(&d.event, 0, FALSE); }, kTooHigh},
    {"SetEventAndWaitAtDispatch", "IrqlKeSetEvent", [](Driver& d) { KeSetEvent(&d.event, 0, TRUE); },
     DISPATCH_LEVEL},
    {"ResetEventTooHigh", "IrqlKeDispatchLte", [](Driver& d) { KeResetEvent(&d.event); }, kTooHigh},
    {"TimerTooHigh", "IrqlKeDispatchLte", [](Driver& d) { KeCancelTimer(&d.timer); }, kTooHigh},
    {"WaitAtDispatch", "IrqlKeWaitAtDispatch", [](Driver& d) { Wait(&d.event, kMillisecond); },
     DISPATCH_LEVEL},
    {"WaitForEverAtDispatch", "IrqlKeWaitAtDispatch",
     [](Driver& d) {
         KeSetEvent(&d.event, 0, FALSE);
         KeWaitForSingleObject(&d.event, Executive, KernelMode, FALSE, nullptr);
     },
     DISPATCH_LEVEL},
    {"DelayAtDispatch", "IrqlKeApcLte", [](Driver& d) { d.kernel->RunFor(kMillisecond); }, DISPATCH_LEVEL},
    {"FlushAtDispatch", "IrqlPassive", [](Driver&) { KeFlushQueuedDpcs(); }, DISPATCH_LEVEL},
    {"CriticalRegionAtDispatch", "IrqlCriticalRegion IrqlCriticalRegion",
     [](Driver&) {
         KeEnterCriticalRegion();
         KeLeaveCriticalRegion();
     },
     DISPATCH_LEVEL},
    {"CriticalRegionLeftTwice", "CriticalRegions",
     [](Driver&) {
         KeLeaveCriticalRegion();
         KeEnterCriticalRegion();
     }},
    {"CriticalRegionNotLeft", "CriticalRegions", [](Driver& d) { RunThread(d, KeEnterCriticalRegion); }},
    {"DpcReturnsAtPassive", "IrqlReturn",
     [](Driver& d) { RunDpc(d, [](PKDPC, PVOID, PVOID, PVOID) NTAPI { KeLowerIrql(PASSIVE_LEVEL); }); }},
    {"ThreadEndsAtDispatch", "IrqlReturn",
     [](Driver& d) { RunThread(d, [] { KfRaiseIrql(DISPATCH_LEVEL); }); }},
    {"SystemRoutineAtDispatch", "IrqlPassive", [](Driver&) { RtlIsNtDdiVersionAvailable(NTDDI_VISTA); },
     DISPATCH_LEVEL},
};

void AcquireAndRelease(KSPIN_LOCK* lock)
{
    KeReleaseSpinLock(lock, KeAcquireSpinLockRaiseToDpc(lock));
}

void AcquireBoth(FAST_MUTEX* outer, FAST_MUTEX* inner)
{
    ExAcquireFastMutex(outer);
    ExAcquireFastMutex(inner);
    ExReleaseFastMutex(inner);
    ExReleaseFastMutex(outer);
}

const BrokenDriver kLocks[] = {
    {"SpinAtHighIrql", "SpinLockIrql IrqlKeReleaseSpinLock", [](Driver& d) { AcquireAndRelease(&d.lock); },
     kTooHigh},
    {"AtDpcLevelAtPassive", "SpinLockIrql IrqlKeReleaseSpinLock",
     [](Driver& d) {
         KeAcquireSpinLockAtDpcLevel(&d.lock);
         KeReleaseSpinLockFromDpcLevel(&d.lock);
     }},
    {"LoweredWithSpinLock", "SpinLockIrql IrqlKeReleaseSpinLock",
     [](Driver& d) {
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&d.lock);
         KeLowerIrql(old);
         KeReleaseSpinLock(&d.lock, old);
     }},
    {"ReleasedToAnotherIrql", "SpinLockWrongOldIrql",
     [](Driver& d) {
         KeAcquireSpinLockRaiseToDpc(&d.lock);
         KeReleaseSpinLock(&d.lock, APC_LEVEL);
     }},
    {"SpinRecursion", "SpinLockRecursion",
     [](Driver& d) {
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&d.lock);
         AcquireAndRelease(&d.lock);
         KeReleaseSpinLock(&d.lock, old);
     }},
    {"SpinOrder", "LockOrder",
     [](Driver& d) {
         for (const auto& [outer, inner] : {std::pair(&d.lock, &d.second_lock), {&d.second_lock, &d.lock}}) {
             KeAcquireSpinLockAtDpcLevel(outer);
             AcquireAndRelease(inner);
             KeReleaseSpinLockFromDpcLevel(outer);
         }
     },
     DISPATCH_LEVEL},
    {"OrderOfThree", "LockOrder",
     [](Driver&) {
         FAST_MUTEX mutexes[3];
         for (FAST_MUTEX& mutex : mutexes)
             ExInitializeFastMutex(&mutex);
         for (int i = 0; i < 3; ++i)
             AcquireBoth(&mutexes[i], &mutexes[(i + 1) % 3]);
     }},
    {"SpinUninitialized", "SpinLockUninitialized",
     [](Driver&) {
         KSPIN_LOCK lock = 0;
         AcquireAndRelease(&lock);
         AcquireAndRelease(&lock); // reported once
     }},
    {"SpinReleaseOrder", "LockReleaseOrder",
     [](Driver& d) {
         KeAcquireSpinLockAtDpcLevel(&d.lock);
         KeAcquireSpinLockAtDpcLevel(&d.second_lock);
         KeReleaseSpinLockFromDpcLevel(&d.lock);
         KeReleaseSpinLockFromDpcLevel(&d.second_lock);
     },
     DISPATCH_LEVEL},
    {"SpinReleasedByAnother", "SpinLockWrongOwner",
     [](Driver& d) {
         const KIRQL old = KeAcquireSpinLockRaiseToDpc(&d.lock);
         ThreadHandle other = d.kernel->Spawn("other", [&] {
             const KIRQL passive = KfRaiseIrql(DISPATCH_LEVEL);
             KeReleaseSpinLockFromDpcLevel(&d.lock);
             KeLowerIrql(passive);
         });
         while (!other.Done())
             KeStallExecutionProcessor(1);
         KeReleaseSpinLock(&d.lock, old);
     }},
    {"SpinReleasedTwice", "SpinLockWrongOwner",
     [](Driver& d) {
         AcquireAndRelease(&d.lock);
         KeReleaseSpinLockFromDpcLevel(&d.lock);
     },
     DISPATCH_LEVEL},
    {"SpinInitializedWhileHeld", "SpinLockDoubleInit SpinLockWrongOwner LockHeldAtReturn",
     [](Driver& d) {
         RunThread(d, [&] {
             const KIRQL old = KeAcquireSpinLockRaiseToDpc(&d.lock);
             KeInitializeSpinLock(&d.lock);
             KeReleaseSpinLock(&d.lock, old);
         });
     }},
    {"MutexAtDispatch", "FastMutexIrql FastMutexReleaseIrql",
     [](Driver& d) {
         ExAcquireFastMutex(&d.mutex);
         ExReleaseFastMutex(&d.mutex);
     },
     DISPATCH_LEVEL},
    {"MutexReleasedAtPassive", "FastMutexReleaseIrql",
     [](Driver& d) {
         ExAcquireFastMutex(&d.mutex);
         KeLowerIrql(PASSIVE_LEVEL);
         ExReleaseFastMutex(&d.mutex);
     }},
    {"MutexRecursion", "FastMutexRecursion", [](Driver& d) { AcquireBoth(&d.mutex, &d.mutex); }},
    {"MutexReleasedByAnother", "FastMutexWrongOwner",
     [](Driver& d) {
         ExAcquireFastMutex(&d.mutex);
         RunThread(d, [&] {
             const KIRQL passive = KfRaiseIrql(APC_LEVEL);
             ExReleaseFastMutex(&d.mutex);
             KeLowerIrql(passive);
         });
         ExReleaseFastMutex(&d.mutex);
     }},
    {"MutexUninitialized", "FastMutexUninitialized",
     [](Driver&) {
         FAST_MUTEX mutex = {};
         ExAcquireFastMutex(&mutex);
         ExReleaseFastMutex(&mutex);
     }},
    {"MutexInitializedWhileHeld", "SpinLockDoubleInit",
     [](Driver& d) {
         ExAcquireFastMutex(&d.mutex);
         ExInitializeFastMutex(&d.mutex);
     }},
    {"ThreadEndsWithMutex", "LockHeldAtReturn IrqlReturn PoolFreeHeldLock",
     [](Driver& d) { RunThread(d, [&] { ExAcquireFastMutex(&d.mutex); }); }},
    {"DpcEndsWithSpinLock", "LockHeldAtReturn PoolFreeHeldLock",
     [](Driver& d) {
         RunDpc(d, [](PKDPC, PVOID context, PVOID, PVOID)
                       NTAPI { KeAcquireSpinLockAtDpcLevel(&static_cast<Driver*>(context)->lock); });
     }},
};

const BrokenDriver kObjects[] = {
    {"UserWaitOnStack", "WaitUserModeOnStack",
     [](Driver&) {
         TestEvent event(NotificationEvent, true);
         Wait(&event, kSecond, UserMode);
     }},
    {"EventUninitialized", "ObjectUninitialized",
     [](Driver&) {
         KEVENT event = {};
         KeSetEvent(&event, 0, FALSE);
     }},
    {"TimerUninitialized", "ObjectUninitialized",
     [](Driver&) {
         KTIMER timer = {};
         KeSetTimer(&timer, Relative(kMillisecond), nullptr);
         KeCancelTimer(&timer);
     }},
    {"DpcUninitialized", "ObjectUninitialized",
     [](Driver&) {
         KDPC dpc = {};
         KeInsertQueueDpc(&dpc, nullptr, nullptr);
     }},
    {"TimerInitializedWhileArmed", "ObjectReinitialized",
     [](Driver& d) {
         KeSetTimer(&d.timer, Relative(kSecond), nullptr);
         KeInitializeTimer(&d.timer);
     }},
    {"DpcInitializedWhileQueued", "ObjectReinitialized",
     [](Driver& d) {
         KeInsertQueueDpc(&d.dpc, nullptr, nullptr);
         KeInitializeDpc(&d.dpc, EmptyDpc, nullptr);
     }},
    {"EventInitializedWhileWaitedFor", "ObjectReinitialized",
     [](Driver& d) {
         const ThreadHandle waiter = WaiterFor(d, d.event);
         const LIST_ENTRY waiters = d.event.Header.WaitListHead;
         KeInitializeEvent(&d.event, NotificationEvent, FALSE);
         d.event.Header.WaitListHead = waiters; // so that the waiter survives it
         d.kernel->RunFor(2 * kSecond);
     }},
    {"EventInPagedPool", "DispatcherInPagedPool",
     [](Driver&) {
         auto* const event = static_cast<PKEVENT>(Allocate(PagedPool));
         KeInitializeEvent(event, NotificationEvent, FALSE);
         ExFreePool(event);
     }},
    {"SpinLockInPagedPool", "DispatcherInPagedPool",
     [](Driver&) {
         auto* const lock = static_cast<KSPIN_LOCK*>(Allocate(PagedPool));
         KeInitializeSpinLock(lock);
         ExFreePool(lock);
     }},
    {"TimerArmedAtUnload", "TimerAlive PoolLeak", // its memory is left, too
     [](Driver& d) {
         KeSetTimer(&d.timer, Relative(kSecond), nullptr);
         VfAuditUnload("broken");
         KeCancelTimer(&d.timer);
     }},
    {"DpcQueuedAtUnload", "DpcAlive PoolLeak",
     [](Driver& d) {
         KeInsertQueueDpc(&d.dpc, nullptr, nullptr);
         VfAuditUnload("broken");
         KeFlushQueuedDpcs();
     }},
    {"WorkItemQueuedAtUnload", "WorkItemAlive PoolLeak",
     [](Driver& d) {
         QueuedWorkItem([](PDEVICE_OBJECT, PVOID item)
                            NTAPI { IoFreeWorkItem(static_cast<PIO_WORKITEM>(item)); });
         VfAuditUnload("broken");
         d.kernel->RunUntilIdle();
     }},
    {"WorkItemNeverFreed", "WorkItemLeak", [](Driver&) { IoAllocateWorkItem(nullptr); }},
    {"WorkItemFreedWhileQueued", "WorkItemFreedQueued WorkItemLeak",
     [](Driver& d) {
         IoFreeWorkItem(QueuedWorkItem(EmptyWork));
         d.kernel->RunUntilIdle();
     }},
    {"WorkItemQueuedTwice", "WorkItemFreedQueued",
     [](Driver& d) {
         const PIO_WORKITEM item = QueuedWorkItem(EmptyWork);
         IoQueueWorkItem(item, EmptyWork, CriticalWorkQueue, nullptr);
         d.kernel->RunUntilIdle();
         IoFreeWorkItem(item);
     }},
    {"WorkItemFreedTwice", "WorkItemUnknown",
     [](Driver&) {
         const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
         IoFreeWorkItem(item);
         IoFreeWorkItem(item);
     }},
    {"WorkItemReturnsAtDispatch", "IrqlReturn",
     [](Driver& d) {
         const PIO_WORKITEM item =
             QueuedWorkItem([](PDEVICE_OBJECT, PVOID) NTAPI { KfRaiseIrql(DISPATCH_LEVEL); });
         d.kernel->RunUntilIdle();
         IoFreeWorkItem(item);
     }},
    {"SystemThreadRunsOn", "ThreadAlive",
     [](Driver&) {
         static KEVENT never;
         KeInitializeEvent(&never, NotificationEvent, FALSE);
         HANDLE thread = nullptr;
         PsCreateSystemThread(
             &thread, 0, nullptr, nullptr, nullptr,
             [](PVOID) NTAPI { KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, nullptr); },
             nullptr);
     }},
    {"EtwNotUnregistered", "EtwStillRegistered",
     [](Driver&) {
         REGHANDLE handle = 0;
         const GUID id = {};
         EtwRegister(&id, nullptr, nullptr, &handle);
     }},
    {"DpcTooLong", "DpcWatchdog",
     [](Driver& d) {
         RunDpc(d, [](PKDPC, PVOID, PVOID, PVOID) NTAPI { KeStallExecutionProcessor(600'000); });
     }},
    {"StringOfOddLength", "MalformedString",
     [](Driver&) {
         WCHAR text[] = L"PsGetVersion";
         UNICODE_STRING name = {5, sizeof text, text};
         MmGetSystemRoutineAddress(&name);
     }},
    {"StringBeyondItsMaximum", "MalformedString",
     [](Driver&) {
         WCHAR text[] = L"PsGetVersion";
         UNICODE_STRING name = {8, 4, text};
         MmGetSystemRoutineAddress(&name);
     }},
    {"ExceptionThatNobodyJoins", "UnhandledException",
     [](Driver& d) { (void)d.kernel->Spawn("thrower", [] { throw std::runtime_error("no"); }); }},
};

class Rules : public ::testing::TestWithParam<BrokenDriver> {};

TEST_P(Rules, AreReportedAndNothingElse)
{
    const BrokenDriver& driver = GetParam();
    const std::vector<Finding> findings =
        Record([&](Kernel& kernel) { RunIn(kernel, driver.run, driver.irql); });
    EXPECT_EQ(RuleNames(findings), driver.rules);
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
    const std::vector<Finding> findings = Record([](Kernel& of) {
        RunIn(of, [](Driver& d) {
            KeSetTimer(&d.timer, Relative(kMillisecond), &d.dpc);
            ExAcquireFastMutex(&d.mutex);
            KIRQL old = KeAcquireSpinLockRaiseToDpc(&d.lock);
            KeAcquireSpinLockAtDpcLevel(&d.second_lock);
            KeSetEvent(&d.event, 0, FALSE);
            Wait(&d.event, 0);
            KeReleaseSpinLockFromDpcLevel(&d.second_lock);
            KeReleaseSpinLock(&d.lock, old);
            ExReleaseFastMutex(&d.mutex);
            d.kernel->RunFor(kSecond);
            KeFlushQueuedDpcs();
            PVOID const paged = Allocate(PagedPool);
            RtlZeroMemory(paged, 64);
            old = KfRaiseIrql(APC_LEVEL);
            ExFreePoolWithTag(paged, kTag);
            KeLowerIrql(old);
        });
    });
    EXPECT_EQ(RuleNames(findings), "");
}

TEST(Verifier, AnExcuseCoversItsRuleAndDetailOnly)
{
    const std::vector<Finding> findings = Record([](Kernel& kernel) {
        kernel.GetVerifier().AddExcuse(
            {.rule = Rule::PoolLeak, .detail = "Kept", .reason = "kept on purpose"});
        ExAllocatePoolWithTag(NonPagedPool, 8, 'tpeK');
        Allocate();
        VfAuditUnload("broken");
        ASSERT_EQ(kernel.GetVerifier().Excused().size(), 1u);
        EXPECT_EQ(kernel.GetVerifier().Excused()[0].reason, "kept on purpose");
    });
    ASSERT_EQ(RuleNames(findings), "PoolLeak");
    EXPECT_EQ(findings[0].detail, "Test");
}

TEST(Verifier, OffItChecksNothing)
{
    const std::vector<Finding> findings = Record({.verifier = false}, [](Kernel&) {
        ExFreePoolWithTag(Allocate(PagedPool), 'rehO');
        KSPIN_LOCK lock = 0;
        KfRaiseIrql(kTooHigh);
        AcquireAndRelease(&lock);
        KeLowerIrql(PASSIVE_LEVEL);
    });
    EXPECT_EQ(RuleNames(findings), "");
}

} // namespace
} // namespace host
