#include "ke/dpc_queue.h"

#include "ke/kernel_impl.h"

#include <algorithm>

namespace host {
namespace {

// A DPC that takes longer is what Windows' watchdog stops the system for. Virtual time passes in a DPC only
// while it stalls the processor or spins for a lock.
constexpr Time kDpcLimit = 500 * kMillisecond;

} // namespace

DpcQueue::DpcQueue(Kernel& kernel, unsigned processors)
    : kernel_(kernel), max_processors_(std::max(processors, 1u))
{}

bool DpcQueue::Insert(KDPC& dpc, PVOID argument1, PVOID argument2)
{
    if (dpc.DpcData != nullptr)
        return false;
    dpc.DpcData = this;
    dpc.SystemArgument1 = argument1;
    dpc.SystemArgument2 = argument2;
    const Entry entry = {&dpc, ++last_number_};
    if (dpc.Importance == HighImportance)
        queue_.push_front(entry);
    else
        queue_.push_back(entry);
    WakeProcessor();
    return true;
}

bool DpcQueue::Remove(KDPC& dpc)
{
    const auto found =
        std::find_if(queue_.begin(), queue_.end(), [&dpc](const Entry& entry) { return entry.dpc == &dpc; });
    if (found == queue_.end())
        return false;
    queue_.erase(found);
    dpc.DpcData = nullptr;
    return true;
}

void DpcQueue::WakeProcessor()
{
    for (const auto& processor : processors_) {
        if (processor->idle) {
            processor->idle = false;
            kernel_.GetScheduler().Wake(*processor->thread);
            return;
        }
    }
    if (processors_.size() == max_processors_)
        return; // a busy one takes it when it is free
    Processor& fresh = *processors_.emplace_back(std::make_unique<Processor>());
    fresh.thread = KiStartThread("DPC " + std::to_string(processors_.size() - 1), ThreadKind::System,
                                 [this, &fresh] { Serve(fresh); });
}

bool DpcQueue::Take(Processor& processor, KDPC& copy)
{
    for (;;) {
        {
            const MutexLock lock(KiDispatcher());
            if (stop_)
                return false;
            if (!queue_.empty()) {
                processor.idle = false;
                processor.running = queue_.front();
                queue_.pop_front();
                copy = *processor.running.dpc;
                // From here on it may be queued again, and its memory freed by its own routine.
                processor.running.dpc->DpcData = nullptr;
                return true;
            }
            processor.idle = true;
        }
        (void)kernel_.GetScheduler().Block({"a DPC to run", nullptr, true}, kForever);
    }
}

void DpcQueue::Serve(Processor& processor)
{
    KDPC copy{};
    while (Take(processor, copy)) {
        Call(*processor.running.dpc, copy);
        const MutexLock lock(KiDispatcher());
        processor.running = {};
        for (Thread* const flusher : flushers_)
            kernel_.GetScheduler().Wake(*flusher);
    }
}

void DpcQueue::Call(KDPC& dpc, KDPC& copy)
{
    Thread& self = KiSelf();
    Kernel::Impl& kernel = self.kernel.impl();
    KiSetIrql(self, DISPATCH_LEVEL);
    const CallbackState before = VfEnterCallback();
    const Time start = kernel.scheduler->Now();
    const auto routine = copy.DeferredRoutine;
    routine(&dpc, copy.DeferredContext, copy.SystemArgument1, copy.SystemArgument2);
    VfLeaveCallback(before, "a DPC", reinterpret_cast<const void*>(routine));
    const Time taken = kernel.scheduler->Now() - start;
    if (kernel.options.mode == Mode::Simulated && taken > kDpcLimit)
        VfReport(Rule::DpcWatchdog, "", "a DPC took " + std::to_string(taken / kMillisecond) + " ms",
                 reinterpret_cast<const void*>(routine));
    KiSetIrql(self, PASSIVE_LEVEL);
}

bool DpcQueue::EndedUpTo(std::uint64_t number) const
{
    const auto older = [number](const Entry& entry) {
        return entry.dpc != nullptr && entry.number <= number;
    };
    return std::none_of(queue_.begin(), queue_.end(), older) &&
           std::none_of(processors_.begin(), processors_.end(),
                        [&older](const auto& processor) { return older(processor->running); });
}

void DpcQueue::Flush()
{
    Thread& self = KiSelf();
    std::uint64_t number = 0;
    {
        const MutexLock lock(KiDispatcher());
        number = last_number_;
        flushers_.push_back(&self);
    }
    for (;;) {
        {
            const MutexLock lock(KiDispatcher());
            if (EndedUpTo(number)) {
                flushers_.erase(std::find(flushers_.begin(), flushers_.end(), &self));
                return;
            }
        }
        (void)kernel_.GetScheduler().Block({"the end of queued DPCs", nullptr}, kForever);
    }
}

void DpcQueue::Shutdown()
{
    std::vector<std::shared_ptr<Thread>> threads;
    {
        const MutexLock lock(KiDispatcher());
        stop_ = true;
        for (const auto& processor : processors_) {
            threads.push_back(processor->thread);
            kernel_.GetScheduler().Wake(*processor->thread);
        }
    }
    for (const auto& thread : threads)
        KiJoinThread(*thread);
}

KDPC* DpcQueue::QueuedIn(const void* begin, const void* end) const
{
    const MutexLock lock(KiDispatcher());
    for (const Entry& entry : queue_) {
        if (entry.dpc >= begin && entry.dpc < end)
            return entry.dpc;
    }
    return nullptr;
}

std::vector<const KDPC*> DpcQueue::Alive() const
{
    const MutexLock lock(KiDispatcher());
    std::vector<const KDPC*> all;
    for (const Entry& entry : queue_)
        all.push_back(entry.dpc);
    for (const auto& processor : processors_) {
        if (processor->running.dpc != nullptr)
            all.push_back(processor->running.dpc);
    }
    return all;
}

} // namespace host
