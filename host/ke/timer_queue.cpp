#include "ke/timer_queue.h"

#include "ke/kernel_impl.h"

namespace host {

TimerQueue::TimerQueue(Kernel& kernel) : kernel_(kernel) {}

bool TimerQueue::Set(KTIMER& timer, Time due, ULONG period_ms, KDPC* dpc)
{
    const MutexLock lock(KiDispatcher());
    const bool was_armed = Disarm(timer);
    timer.Header.SignalState = 0;
    timer.Period = period_ms;
    timer.Dpc = dpc;
    Arm(timer, due);
    if (thread_ == nullptr)
        thread_ = KiStartThread("timers", ThreadKind::System, [this] { Serve(); });
    else if (armed_.begin()->second == &timer)
        kernel_.GetScheduler().SetDeadline(*thread_, armed_.begin()->first);
    return was_armed;
}

bool TimerQueue::Cancel(KTIMER& timer)
{
    const MutexLock lock(KiDispatcher());
    return Disarm(timer);
}

void TimerQueue::Shutdown()
{
    std::shared_ptr<Thread> thread;
    {
        const MutexLock lock(KiDispatcher());
        stop_ = true;
        thread = thread_;
        if (thread != nullptr)
            kernel_.GetScheduler().Wake(*thread);
    }
    if (thread != nullptr)
        KiJoinThread(*thread);
}

void TimerQueue::Arm(KTIMER& timer, Time due)
{
    const Time tick = kernel_.Options().clock_tick;
    if (due > kernel_.GetScheduler().Now() && due <= kForever - tick)
        due = (due + tick - 1) / tick * tick;
    timer.DueTime.QuadPart = static_cast<ULONGLONG>(due);
    timer.Header.Inserted = TRUE;
    armed_.emplace(due, &timer);
}

bool TimerQueue::Disarm(KTIMER& timer)
{
    // What the timer says of itself is only a hint: it may be garbage.
    auto [at, end] = armed_.equal_range(static_cast<Time>(timer.DueTime.QuadPart));
    for (; at != end; ++at) {
        if (at->second == &timer) {
            armed_.erase(at);
            timer.Header.Inserted = FALSE;
            return true;
        }
    }
    return false;
}

void TimerQueue::Expire(KTIMER& timer)
{
    const Time due = static_cast<Time>(timer.DueTime.QuadPart);
    Disarm(timer);
    if (timer.Period != 0)
        Arm(timer, due + static_cast<Time>(timer.Period) * kMillisecond);
    // The waiters may free the timer as soon as they run.
    KDPC* const dpc = timer.Dpc;
    KiSignal(timer.Header);
    if (dpc != nullptr)
        kernel_.impl().dpcs.Insert(*dpc, nullptr, nullptr);
}

void TimerQueue::Serve()
{
    Scheduler& scheduler = kernel_.GetScheduler();
    for (;;) {
        Time next = kForever;
        bool expired = false;
        {
            const MutexLock lock(KiDispatcher());
            if (stop_)
                return;
            if (!armed_.empty())
                next = armed_.begin()->first;
            if (next <= scheduler.Now()) {
                Expire(*armed_.begin()->second);
                expired = true;
            }
        }
        if (expired)
            scheduler.Yield(YieldPoint::Timer);
        else
            (void)scheduler.Block({"a timer to expire", nullptr, true}, next);
    }
}

KTIMER* TimerQueue::ArmedIn(const void* begin, const void* end) const
{
    const MutexLock lock(KiDispatcher());
    for (const auto& [due, timer] : armed_) {
        if (timer >= begin && timer < end)
            return timer;
    }
    return nullptr;
}

std::vector<const KTIMER*> TimerQueue::Armed() const
{
    const MutexLock lock(KiDispatcher());
    std::vector<const KTIMER*> all;
    for (const auto& [due, timer] : armed_)
        all.push_back(timer);
    return all;
}

} // namespace host
