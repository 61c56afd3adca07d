#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/io.h>

namespace host {
namespace {

struct Work {
    PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
    int runs = 0;
    int again = 0;
    KIRQL irql = 0xff;
    KEVENT* gate = nullptr;

    static VOID NTAPI Run(PDEVICE_OBJECT /*DeviceObject*/, PVOID context)
    {
        auto* const work = static_cast<Work*>(context);
        work->irql = KeGetCurrentIrql();
        ++work->runs;
        if (work->gate != nullptr)
            KeWaitForSingleObject(work->gate, Executive, KernelMode, FALSE, nullptr);
        if (work->runs <= work->again)
            IoQueueWorkItem(work->item, Run, DelayedWorkQueue, work); // from within: it is free again
        else
            IoFreeWorkItem(work->item);
    }
};

TEST(WorkItems, RunAtPassiveLevelWhenQueuedAtDispatch)
{
    Kernel kernel;
    Work work;
    const KIRQL old = KfRaiseIrql(DISPATCH_LEVEL);
    IoQueueWorkItem(work.item, Work::Run, CriticalWorkQueue, &work);
    KeLowerIrql(old);
    kernel.RunUntilIdle();
    EXPECT_EQ(work.runs, 1);
    EXPECT_EQ(work.irql, PASSIVE_LEVEL);
}

TEST(WorkItems, MayQueueThemselvesAgain)
{
    Kernel kernel;
    Work work;
    work.again = 5;
    IoQueueWorkItem(work.item, Work::Run, DelayedWorkQueue, &work);
    kernel.RunUntilIdle();
    EXPECT_EQ(work.runs, 6);
}

// As many block as there are workers; the next waits in the queue, and the other queue goes on.
TEST(WorkItems, AQueueHasItsOwnWorkers)
{
    Kernel kernel({.worker_threads = 2});
    TestEvent gate;
    Work blocked[3];
    for (Work& work : blocked) {
        work.gate = &gate;
        IoQueueWorkItem(work.item, Work::Run, DelayedWorkQueue, &work);
    }
    Work critical;
    IoQueueWorkItem(critical.item, Work::Run, CriticalWorkQueue, &critical);
    kernel.RunUntilIdle();
    EXPECT_EQ(blocked[0].runs + blocked[1].runs + blocked[2].runs, 2);
    EXPECT_EQ(critical.runs, 1);
    KeSetEvent(&gate, 0, FALSE);
    kernel.RunUntilIdle();
    EXPECT_EQ(blocked[0].runs + blocked[1].runs + blocked[2].runs, 3);
}

} // namespace
} // namespace host
