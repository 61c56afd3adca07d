// The live scheduler under real concurrency; ThreadSanitizer runs these.
#include "recorded.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <wdm/ex.h>
#include <wdm/io.h>

namespace host {
namespace {

// A small driver: clients append to a list, a timer's DPC hands it to a work item, which empties it.
class Pipeline {
  public:
    Pipeline()
    {
        KeInitializeSpinLock(&lock_);
        ExInitializeFastMutex(&mutex_);
        KeInitializeEvent(&drained_, SynchronizationEvent, FALSE);
        KeInitializeTimer(&timer_);
        KeInitializeDpc(&dpc_, OnTimer, this);
    }

    void Start() { KeSetTimerEx(&timer_, Relative(kMillisecond), 1, &dpc_); }

    void Append()
    {
        auto* const block = static_cast<int*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(int), 'epiP'));
        *block = 1;
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
        queue_.push_back(block);
        KeReleaseSpinLock(&lock_, irql);
    }

    void WaitFor(LONG total)
    {
        while (InterlockedCompareExchange(&handled_, 0, 0) < total)
            KeWaitForSingleObject(&drained_, Executive, KernelMode, FALSE, nullptr);
    }

    void Stop(Kernel& kernel)
    {
        KeCancelTimer(&timer_);
        KeFlushQueuedDpcs();
        kernel.RunUntilIdle();
    }

  private:
    static VOID NTAPI OnTimer(PKDPC /*Dpc*/, PVOID context, PVOID /*argument1*/, PVOID /*argument2*/)
    {
        const PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
        auto* const self = static_cast<Pipeline*>(context);
        struct Call {
            Pipeline* self;
            PIO_WORKITEM item;
        };
        IoQueueWorkItem(
            item,
            [](PDEVICE_OBJECT, PVOID argument) NTAPI {
                const Call call = *static_cast<Call*>(argument);
                delete static_cast<Call*>(argument);
                call.self->Drain();
                IoFreeWorkItem(call.item);
            },
            DelayedWorkQueue, new Call{self, item});
    }

    void Drain()
    {
        ExAcquireFastMutex(&mutex_);
        std::vector<int*> taken;
        const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
        taken.swap(queue_);
        KeReleaseSpinLock(&lock_, irql);
        for (int* const block : taken) {
            InterlockedExchangeAdd(&handled_, *block);
            ExFreePoolWithTag(block, 'epiP');
        }
        ExReleaseFastMutex(&mutex_);
        KeSetEvent(&drained_, 0, FALSE);
    }

    KSPIN_LOCK lock_;
    FAST_MUTEX mutex_;
    KEVENT drained_;
    KTIMER timer_;
    KDPC dpc_;
    std::vector<int*> queue_; // under lock_
    LONG handled_ = 0;
};

TEST(Live, APipelineLosesNothing)
{
    for (const bool verifier : {true, false}) {
        const std::vector<Finding> findings =
            Record({.mode = Mode::Live, .verifier = verifier}, [](Kernel& kernel) {
                constexpr int kClients = 4;
                constexpr int kEach = 500;
                Pipeline pipeline;
                pipeline.Start();
                RunThreads(kernel, kClients, [&] {
                    for (int n = 0; n < kEach; ++n)
                        pipeline.Append();
                });
                pipeline.WaitFor(kClients * kEach);
                pipeline.Stop(kernel);
            });
        EXPECT_EQ(RuleNames(findings), "");
    }
}

TEST(Live, ThreadsOfTheApplicationMayJoinIn)
{
    Kernel kernel({.mode = Mode::Live});
    TestEvent event;
    std::string name;
    std::thread application([&] {
        const AttachedThread attached("application");
        name = ActorName();
        KeSetEvent(&event, 0, FALSE);
    });
    event.Wait();
    application.join();
    EXPECT_EQ(name, "application");
}

TEST(Live, FindingsAreRecordedFromAnyThread)
{
    const std::vector<Finding> findings = Record({.mode = Mode::Live}, [](Kernel& kernel) {
        RunThreads(kernel, 1, [] {
            int local = 0;
            ExAllocatePoolWithTag(NonPagedPool, 8, 'kaeL');
            ExFreePool(&local);
        });
    });
    EXPECT_EQ(RuleNames(findings), "PoolFreeUnknown PoolLeak");
}

TEST(Live, ManyKernelsOneAfterTheOther)
{
    for (int i = 0; i < 200; ++i) {
        Kernel kernel({.mode = Mode::Live});
        std::atomic<int> ran{0};
        RunThreads(kernel, 4, [&] { ++ran; });
        EXPECT_EQ(ran, 4);
    }
}

} // namespace
} // namespace host
