#include "recorded.h"

#include <gtest/gtest.h>
#include <wdm/io.h>

namespace host {
namespace {

struct Work {
    PIO_WORKITEM item = IoAllocateWorkItem(nullptr);
    int runs = 0;
    KEVENT* gate = nullptr;

    static VOID NTAPI Run(PDEVICE_OBJECT /*DeviceObject*/, PVOID context)
    {
        auto* const work = static_cast<Work*>(context);
        ++work->runs;
        if (work->gate != nullptr)
            KeWaitForSingleObject(work->gate, Executive, KernelMode, FALSE, nullptr);
        IoFreeWorkItem(work->item);
    }
};

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
