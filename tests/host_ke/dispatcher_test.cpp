// Events, waits, timers and DPCs, in virtual and in real time.
#include "recorded.h"

#include <atomic>
#include <gtest/gtest.h>
#include <wdm/ex.h>

namespace host {
namespace {

// Real time is as late as the machine is busy: a live test only knows what cannot come too early.
class Dispatcher : public ::testing::TestWithParam<Mode> {
  protected:
    Kernel kernel{{.mode = GetParam()}};
    // One unit of time for the scenario: short, because a live kernel really waits.
    static constexpr Time kUnit = 5 * kMillisecond;

    NTSTATUS WaitFor(PVOID object, Time time)
    {
        LARGE_INTEGER timeout = Relative(time);
        return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &timeout);
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, Dispatcher, ::testing::Values(Mode::Simulated, Mode::Live),
                         [](const auto& info) { return info.param == Mode::Live ? "Live" : "Simulated"; });

TEST_P(Dispatcher, AnEventReleasesAllOrOne)
{
    for (const EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        TestEvent event(type);
        std::atomic<int> released{0};
        std::vector<ThreadHandle> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.push_back(kernel.Spawn("waiter", [&] {
                EXPECT_EQ(WaitFor(&event, kForever - 1), STATUS_SUCCESS);
                ++released;
            }));
        kernel.RunUntilIdle();
        EXPECT_EQ(released, 0);
        EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
        kernel.RunUntilIdle();
        EXPECT_EQ(released, type == NotificationEvent ? 3 : 1);
        EXPECT_EQ(KeReadStateEvent(&event), type == NotificationEvent ? 1 : 0);
        for (int i = 0; i < 2; ++i) {
            KeSetEvent(&event, 0, FALSE);
            kernel.RunUntilIdle();
        }
        EXPECT_EQ(released, 3);
    }
}

TEST_P(Dispatcher, ResetAndClearTakeTheSignalBack)
{
    TestEvent event(NotificationEvent, true);
    EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1);
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeResetEvent(&event), 0);
    KeSetEvent(&event, 0, FALSE);
    KeClearEvent(&event);
    EXPECT_EQ(WaitFor(&event, 0), STATUS_TIMEOUT);
}

TEST_P(Dispatcher, AWaitTimesOutAtItsTimeAndNotBefore)
{
    TestEvent event(SynchronizationEvent);
    const Time start = kernel.InterruptTime();
    EXPECT_EQ(WaitFor(&event, 2 * kUnit), STATUS_TIMEOUT);
    EXPECT_GE(kernel.InterruptTime() - start, 2 * kUnit);
    LARGE_INTEGER absolute;
    absolute.QuadPart = kernel.Now() + kUnit;
    EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &absolute), STATUS_TIMEOUT);
    EXPECT_GE(kernel.InterruptTime() - start, 3 * kUnit);
    if (kernel.Simulated()) {
        EXPECT_EQ(kernel.InterruptTime() - start, 3 * kUnit);
    }
    // Nothing of the waits that timed out is left on the event.
    EXPECT_TRUE(IsListEmpty(&event.Header.WaitListHead));
    KeSetEvent(&event, 0, FALSE);
    EXPECT_EQ(WaitFor(&event, kUnit), STATUS_SUCCESS);
}

TEST_P(Dispatcher, WaitForAnyTakesTheFirstAndForAllTakesNoneOrAll)
{
    TestEvent events[3] = {TestEvent(SynchronizationEvent), TestEvent(SynchronizationEvent),
                           TestEvent(SynchronizationEvent)};
    PVOID objects[3] = {&events[0], &events[1], &events[2]};
    const auto wait = [&](WAIT_TYPE type) {
        LARGE_INTEGER at_once = {};
        return KeWaitForMultipleObjects(3, objects, type, Executive, KernelMode, FALSE, &at_once, nullptr);
    };
    EXPECT_EQ(wait(WaitAny), STATUS_TIMEOUT);
    KeSetEvent(&events[1], 0, FALSE);
    KeSetEvent(&events[2], 0, FALSE);
    EXPECT_EQ(wait(WaitAll), STATUS_TIMEOUT);
    EXPECT_EQ(wait(WaitAny), STATUS_WAIT_1);
    EXPECT_EQ(wait(WaitAny), STATUS_WAIT_2);
    EXPECT_EQ(wait(WaitAny), STATUS_TIMEOUT);

    ThreadHandle all = kernel.Spawn("all", [&] {
        EXPECT_EQ(
            KeWaitForMultipleObjects(3, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr),
            STATUS_SUCCESS);
    });
    for (KEVENT& event : events) {
        kernel.RunUntilIdle();
        EXPECT_FALSE(all.Done());
        KeSetEvent(&event, 0, FALSE);
    }
    all.Join();
    for (KEVENT& event : events)
        EXPECT_EQ(KeReadStateEvent(&event), 0);
}

VOID NTAPI CountDpc(PKDPC /*Dpc*/, PVOID context, PVOID /*argument1*/, PVOID /*argument2*/)
{
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    ++*static_cast<std::atomic<int>*>(context);
}

TEST_P(Dispatcher, ATimerSignalsAndQueuesItsDpc)
{
    std::atomic<int> calls{0};
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, CountDpc, &calls);
    KeInitializeTimer(&timer);
    EXPECT_FALSE(KeSetTimer(&timer, Relative(kForever / 2), &dpc));
    EXPECT_TRUE(KeSetTimer(&timer, Relative(kUnit), &dpc)); // it was armed: now it is due earlier
    EXPECT_FALSE(KeReadStateTimer(&timer));
    EXPECT_EQ(WaitFor(&timer, kForever - 1), STATUS_SUCCESS);
    KeFlushQueuedDpcs();
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(KeReadStateTimer(&timer));
    EXPECT_FALSE(KeCancelTimer(&timer)); // it is over
    KeSetTimer(&timer, Relative(kUnit), &dpc);
    EXPECT_FALSE(KeReadStateTimer(&timer));
    EXPECT_TRUE(KeCancelTimer(&timer));
    EXPECT_FALSE(KeCancelTimer(&timer));
    kernel.RunFor(2 * kUnit);
    EXPECT_EQ(calls, 1);
}

TEST_P(Dispatcher, APeriodicTimerGoesOnUntilItIsCancelled)
{
    std::atomic<int> calls{0};
    KDPC dpc;
    KTIMER timer;
    KeInitializeDpc(&dpc, CountDpc, &calls);
    KeInitializeTimerEx(&timer, SynchronizationTimer);
    KeSetTimerEx(&timer, Relative(kUnit), static_cast<LONG>(kUnit / kMillisecond), &dpc);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(WaitFor(&timer, kForever - 1), STATUS_SUCCESS);
    EXPECT_TRUE(KeCancelTimer(&timer));
    KeFlushQueuedDpcs();
    EXPECT_GE(calls, 1); // one that is still queued is not queued again
    if (kernel.Simulated()) {
        EXPECT_EQ(kernel.InterruptTime(), 3 * kUnit);
        EXPECT_EQ(calls, 3);
    }
}

TEST_P(Dispatcher, AQueuedDpcIsNotQueuedAgainAndCanBeRemoved)
{
    std::atomic<int> calls{0};
    KDPC dpc;
    KeInitializeDpc(&dpc, CountDpc, &calls);
    int inserted = 0;
    for (int i = 0; i < 50; ++i)
        inserted += KeInsertQueueDpc(&dpc, nullptr, nullptr) ? 1 : 0;
    int removed = KeRemoveQueueDpc(&dpc) ? 1 : 0;
    KeFlushQueuedDpcs();
    EXPECT_GE(inserted, 1);
    EXPECT_EQ(calls, inserted - removed);
    EXPECT_FALSE(KeRemoveQueueDpc(&dpc));
}

// Two processors run two DPCs at once: each waits for what the other does.
TEST_P(Dispatcher, DpcsRunOnSeveralProcessors)
{
    struct Pair {
        LONG arrived = 0;
        static VOID NTAPI Meet(PKDPC /*Dpc*/, PVOID context, PVOID /*argument1*/, PVOID /*argument2*/)
        {
            auto* const pair = static_cast<Pair*>(context);
            InterlockedIncrement(&pair->arrived);
            while (InterlockedCompareExchange(&pair->arrived, 2, 2) != 2)
                KeStallExecutionProcessor(10);
        }
    } pair;
    KDPC dpcs[2];
    for (KDPC& dpc : dpcs) {
        KeInitializeDpc(&dpc, Pair::Meet, &pair);
        KeInsertQueueDpc(&dpc, nullptr, nullptr);
    }
    KeFlushQueuedDpcs();
    EXPECT_EQ(pair.arrived, 2);
}

TEST_P(Dispatcher, LocksExclude)
{
    KSPIN_LOCK spin;
    FAST_MUTEX mutex;
    KeInitializeSpinLock(&spin);
    ExInitializeFastMutex(&mutex);
    int by_spin = 0;
    int by_mutex = 0;
    constexpr int kRounds = 200;
    RunThreads(kernel, 4, [&] {
        for (int i = 0; i < kRounds; ++i) {
            const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&spin);
            ++by_spin;
            KeReleaseSpinLock(&spin, irql);
            ExAcquireFastMutex(&mutex);
            EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
            ++by_mutex;
            ExReleaseFastMutex(&mutex);
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        }
    });
    EXPECT_EQ(by_spin, 4 * kRounds);
    EXPECT_EQ(by_mutex, 4 * kRounds);
    ExAcquireFastMutex(&mutex);
    RunThreads(kernel, 1, [&] {
        if (ExTryToAcquireFastMutex(&mutex)) {
            ADD_FAILURE() << "took a mutex that is held";
            ExReleaseFastMutex(&mutex);
        }
    });
    ExReleaseFastMutex(&mutex);
}

TEST_P(Dispatcher, InterlockedOperationsReturnWhatThePlatformReturns)
{
    LONG value = 5;
    LONG64 wide = 1LL << 40;
    int target = 0;
    PVOID pointer = nullptr;
    EXPECT_EQ(InterlockedIncrement(&value), 6);
    EXPECT_EQ(InterlockedDecrement(&value), 5);
    EXPECT_EQ(InterlockedExchange(&value, 9), 5);
    EXPECT_EQ(InterlockedExchangeAdd(&value, 3), 9);
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 11), 12);
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 12), 12);
    EXPECT_EQ(InterlockedOr(&value, 6), 1);
    EXPECT_EQ(InterlockedAnd(&value, 5), 7);
    EXPECT_EQ(InterlockedXor(&value, 4), 5);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(InterlockedIncrement64(&wide), (1LL << 40) + 1);
    EXPECT_EQ(InterlockedExchangePointer(&pointer, &target), nullptr);
    EXPECT_EQ(InterlockedCompareExchangePointer(&pointer, nullptr, &target), &target);
    EXPECT_EQ(pointer, nullptr);
}

TEST_P(Dispatcher, ClocksCountTheSameTime)
{
    LARGE_INTEGER system;
    LARGE_INTEGER ticks;
    kernel.RunFor(2 * kSecond / (kernel.Simulated() ? 1 : 100));
    KeQuerySystemTime(&system);
    KeQueryTickCount(&ticks);
    const auto interrupt = static_cast<Time>(KeQueryInterruptTime());
    if (kernel.Simulated()) {
        EXPECT_EQ(system.QuadPart, KernelOptions{}.start_time + 2 * kSecond);
        EXPECT_EQ(ticks.QuadPart, 128);
        EXPECT_EQ(interrupt, 2 * kSecond);
    } else {
        EXPECT_GT(system.QuadPart, 133'000'000'000'000'000); // after 2022
        EXPECT_GE(interrupt, 2 * kSecond / 100);
        EXPECT_LE(ticks.QuadPart, interrupt / KeQueryTimeIncrement());
    }
}

} // namespace
} // namespace host
