// What a Kernel is made of; for the kernel's own folders.
#pragma once

#include "ex/pool.h"
#include "ex/work_queue.h"
#include "ke/dispatcher.h"
#include "ke/dpc_queue.h"
#include "ke/isolated_run.h"
#include "ke/kernel.h"
#include "ke/spin_lock.h"
#include "ke/thread.h"
#include "ke/timer_queue.h"
#include "verifier/lock_rules.h"

#include <array>
#include <atomic>
#include <memory>

namespace host {

// Lines that DbgPrint was given.
class DebugPrintLines {
  public:
    void Add(std::string line);
    std::vector<std::string> Lines() const;

  private:
    mutable Mutex mutex_;
    std::vector<std::string> lines_ HOST_GUARDED_BY(mutex_);
};

class ThreadTable {
  public:
    std::shared_ptr<Thread> Add(Kernel& kernel, std::string name, ThreadKind kind,
                                std::function<void()> body);
    std::string NameOf(ThreadId id) const;
    std::vector<std::string> Names() const;
    std::vector<std::shared_ptr<Thread>> All() const;

    template <class Routine>
    void ForEach(Routine routine) const
    {
        const MutexLock lock(mutex_);
        for (const auto& thread : threads_)
            routine(*thread);
    }

  private:
    mutable Mutex mutex_;
    std::vector<std::shared_ptr<Thread>> threads_ HOST_GUARDED_BY(mutex_); // by id
    std::vector<std::string> names_ HOST_GUARDED_BY(mutex_);
};

struct Kernel::Impl {
    Impl(Kernel& kernel, KernelOptions given);

    Kernel& kernel;
    const KernelOptions options;
    const Time boot_time; // system time at interrupt time 0
    FaultPoints faults;
    EventLog log;
    Verifier verifier;
    LockRules locks;
    ThreadTable threads;
    DebugPrintLines prints;
    std::unique_ptr<Scheduler> scheduler;
    Mutex dispatcher;
    SpinWaiters spin_waiters;
    DpcQueue dpcs;
    TimerQueue timers;
    WorkQueues work;
    Pool pool;
    std::shared_ptr<Thread> main;
    IsolatedRun* const isolated_run = KiIsolatedRun();

    static constexpr std::size_t kMaxComponents = 32;
    std::array<std::atomic<Component*>, kMaxComponents> components{};
    Mutex components_mutex;
    std::vector<std::unique_ptr<Component>> components_in_order HOST_GUARDED_BY(components_mutex);
};

// The kernel that is alive; aborts with a message when there is none.
inline Kernel::Impl& KiKernel()
{
    return Kernel::Current().impl();
}
// The calling kernel thread; aborts with a message when it is none.
Thread& KiSelf();

// Starts a thread. Does not yield, so it may be called under the dispatcher's lock.
std::shared_ptr<Thread> KiStartThread(std::string name, ThreadKind kind, std::function<void()> body);
// Waits until it has ended. IRQL PASSIVE_LEVEL.
void KiJoinThread(Thread& thread);
// Ends the calling thread from within its body.
[[noreturn]] void KiExitThread(NTSTATUS status);

// Every thread that is not idle: its IRQL, what it waits for and who has that, the locks it holds.
std::string KiDescribeThreads(Kernel& kernel);

void KiSetIrql(Thread& thread, KIRQL irql);
// Hides or shows paged memory as the IRQL of the thread that runs now demands.
void KiApplyIrql(const Thread& thread);

} // namespace host
