#include "ke/simulated_scheduler.h"

#include "ke/kernel_impl.h"
#include "ke/os_threads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace host {
SimulatedScheduler::SimulatedScheduler(Kernel& kernel, std::shared_ptr<Strategy> strategy,
                                       const KernelOptions& options)
    : kernel_(kernel), strategy_(std::move(strategy)), max_steps_(options.max_steps), drift_(options.drift),
      processor_(OsCurrentProcessor()), in_focus_(options.in_focus)
{
    strategy_->StartRun();
    OsBind(processor_);
}

SimulatedScheduler::~SimulatedScheduler()
{
    OsBind(-1);
}

void SimulatedScheduler::Adopt(Thread& thread)
{
    current_ = &thread;
    thread.state = Thread::State::Running;
    threads_.push_back(&thread);
    KiSetCurrentThread(&thread);
}

void SimulatedScheduler::Release(Thread& /*thread*/)
{
    KiSetCurrentThread(nullptr);
}

void SimulatedScheduler::Start(Thread& thread, std::function<void()> entry)
{
    thread.entry = std::move(entry);
    threads_.push_back(&thread);
    MakeReady(thread);
}

Thread& SimulatedScheduler::Self() const
{
    Thread* const self = KiCurrentThread();
    if (self == nullptr || self != current_) {
        std::fprintf(stderr, "a thread that is not the running kernel thread called the simulated kernel\n");
        std::abort();
    }
    return *self;
}

void SimulatedScheduler::CountStep()
{
    if (++step_ > max_steps_)
        kernel_.GetVerifier().ReportFatal(Rule::Livelock, "", KiDescribeThreads(kernel_));
}

void SimulatedScheduler::Yield(YieldPoint /*point*/)
{
    Thread& self = Self();
    CountStep();
    if (ready_.empty() && drift_ == 0)
        return;
    Thread& next = Pick(&self);
    if (&next == &self)
        return;
    MakeReady(self);
    SwitchTo(next);
    AwaitTurn(self);
}

bool SimulatedScheduler::Block(const WaitReason& reason, Time deadline)
{
    Thread& self = Self();
    CountStep();
    if (std::exchange(self.wake_pending, false))
        return true;
    self.reason = reason;
    self.deadline = deadline;
    self.timed_out = false;
    self.state = Thread::State::Blocked;
    if (deadline <= now_) {
        self.timed_out = true;
        MakeReady(self);
    }
    Thread& next = PickWhenBlocked();
    if (&next == &self) {
        self.state = Thread::State::Running;
    } else {
        SwitchTo(next);
        AwaitTurn(self);
    }
    return !self.timed_out;
}

void SimulatedScheduler::WaitUntilIdle()
{
    Thread& self = Self();
    idle_waiters_.push_back(&self);
    (void)Block({"idleness of all others", nullptr}, kForever);
    std::erase(idle_waiters_, &self);
}

void SimulatedScheduler::Wake(Thread& thread)
{
    if (thread.state == Thread::State::Blocked)
        MakeReady(thread);
    else if (thread.state != Thread::State::Done)
        thread.wake_pending = true;
}

void SimulatedScheduler::SetDeadline(Thread& thread, Time deadline)
{
    thread.deadline = deadline;
    if (thread.state == Thread::State::Blocked && deadline <= now_) {
        thread.timed_out = true;
        MakeReady(thread);
    }
}

void SimulatedScheduler::Finish(Thread& thread)
{
    Thread& self = Self();
    self.state = Thread::State::Done;
    std::erase(threads_, &thread);
    Thread& next = PickWhenBlocked();
    KiSetCurrentThread(nullptr);
    SwitchTo(next);
}

void SimulatedScheduler::MakeReady(Thread& thread)
{
    thread.state = Thread::State::Ready;
    ready_.push_back(&thread);
}

Thread& SimulatedScheduler::Pick(Thread* running)
{
    candidates_.clear();
    if (running != nullptr)
        candidates_.push_back(running);
    candidates_.insert(candidates_.end(), ready_.begin(), ready_.end());
    if (drift_ > 0)
        AddDueSoon();
    Thread& next = *candidates_[candidates_.size() == 1 ? 0 : Ask(running != nullptr)];
    if (next.state == Thread::State::Blocked) {
        // Its time-out overtakes threads that are ready.
        now_ = std::max(now_, next.deadline);
        MakeDueReady();
    }
    std::erase(ready_, &next);
    return next;
}

void SimulatedScheduler::AddDueSoon()
{
    for (Thread* const thread : threads_) {
        if (thread->state == Thread::State::Blocked && thread->deadline != kForever &&
            thread->deadline - now_ <= drift_)
            candidates_.push_back(thread);
    }
}

std::size_t SimulatedScheduler::Ask(bool may_continue)
{
    if (!in_focus_)
        return 0;
    candidate_ids_.clear();
    for (const Thread* const thread : candidates_)
        candidate_ids_.push_back(thread->id);
    const std::size_t index = strategy_->PickNext({candidate_ids_, may_continue, step_});
    if (index >= candidates_.size()) {
        kernel_.GetVerifier().ReportFatal(Rule::ReplayDiverged, "",
                                          "choice " + std::to_string(recorded_.size() + 1) + " is number " +
                                              std::to_string(index) + " of " +
                                              std::to_string(candidates_.size()) + " threads");
    }
    recorded_.push_back(static_cast<std::uint32_t>(index));
    return index;
}

Thread& SimulatedScheduler::PickWhenBlocked()
{
    while (ready_.empty()) {
        if (!idle_waiters_.empty() && idle_waiters_.front()->state == Thread::State::Blocked)
            MakeReady(*idle_waiters_.front());
        else if (!AdvanceClock())
            kernel_.GetVerifier().ReportFatal(Rule::Deadlock, "", KiDescribeThreads(kernel_));
    }
    return Pick(nullptr);
}

bool SimulatedScheduler::AdvanceClock()
{
    Time earliest = kForever;
    for (const Thread* const thread : threads_) {
        if (thread->state == Thread::State::Blocked)
            earliest = std::min(earliest, thread->deadline);
    }
    if (earliest == kForever)
        return false;
    now_ = std::max(now_, earliest);
    MakeDueReady();
    return true;
}

void SimulatedScheduler::MakeDueReady()
{
    std::vector<Thread*> due;
    for (Thread* const thread : threads_) {
        if (thread->state == Thread::State::Blocked && thread->deadline <= now_)
            due.push_back(thread);
    }
    std::stable_sort(due.begin(), due.end(),
                     [](const Thread* a, const Thread* b) { return a->deadline < b->deadline; });
    for (Thread* const thread : due) {
        thread->timed_out = true;
        MakeReady(*thread);
    }
}

void SimulatedScheduler::SwitchTo(Thread& next)
{
    current_ = &next;
    next.state = Thread::State::Running;
    if (next.kind != ThreadKind::Main && !std::exchange(next.started, true))
        OsRun(
            [&next] {
                KiSetCurrentThread(&next);
                KiApplyIrql(next);
                // Moved to this stack: the last of it runs after the thread has been handed back.
                const std::function<void()> entry = std::move(next.entry);
                entry();
            },
            processor_);
    else
        next.parker.Post();
}

void SimulatedScheduler::AwaitTurn(Thread& self)
{
    self.parker.Wait();
    KiApplyIrql(self);
}

} // namespace host
